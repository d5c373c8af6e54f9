#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include "av.h"
#include "encode.h"
#include "error.h"
#include "settings.h"
#include "stop.h"

namespace {

using namespace gsve::cli;

using Command = std::function<int()>;

const std::map<std::string, Report> kReports = {{"text", Report::kText}, {"json", Report::kJson}};

// Each command adds its options to the parser, and itself as what is to run once they have been read.

void add_encode(CLI::App& app, Command& command) {
    auto options = std::make_shared<EncodeOptions>();
    CLI::App* encode_app = app.add_subcommand("encode", "Encode a media file to MPEG-2, H.264 or H.265");
    encode_app->add_option("INPUT", options->input, "Any file that libavformat opens")->required();
    encode_app
        ->add_option("OUTPUT", options->output,
                     "Elementary stream (.m2v .h264 .264 .h265 .265 .hevc) or container (.ts .mp4 .mkv)")
        ->required();
    encode_app->add_option("-c,--codec", options->codec, "Default: by the output's name, h.264 in containers")
        ->check(CLI::IsMember({"mpeg-2", "h.264", "h.265"}));
    encode_app
        ->add_option("-s,--set", options->settings,
                     "\"KEY=VALUE\", repeatable; \"gsve settings\" lists the keys")
        ->take_all()
        ->expected(1)
        ->allow_extra_args(false);
    encode_app->add_option("--rate", options->frame_rate,
                           "Make this the source's frame rate: 25, 30000/1001, ...");
    encode_app
        ->add_option_function<std::string>(
            "--report", [options](const std::string& kind) { options->report = kReports.at(kind); },
            "Print the encoder's status pairs as text, or everything as json")
        ->check(CLI::IsMember(kReports));
    encode_app->add_flag("-y,--overwrite", options->overwrite, "Overwrite OUTPUT");
    encode_app->add_flag("-q,--quiet", options->quiet, "No notes, progress or summary");
    encode_app->add_flag("-v,--verbose", options->verbose, "Show what the codecs report");
    encode_app->callback([options, &command] { command = [options] { return encode(*options); }; });
}

void add_settings(CLI::App& app, Command& command) {
    auto json = std::make_shared<bool>(false);
    CLI::App* settings_app =
        app.add_subcommand("settings", "List all settings: key, default, syntax, meaning");
    settings_app->add_flag("--json", *json, "As JSON");
    settings_app->callback([json, &command] {
        command = [json] {
            fmt::print("{}", *json ? settings_json() : settings_text());
            return 0;
        };
    });
}

void add_help(CLI::App& app, Command& command) {
    auto topic = std::make_shared<std::string>();
    CLI::App* help_app = app.add_subcommand("help", "Explain a command");
    help_app->add_option("COMMAND", *topic);
    help_app->callback([topic, &app, &command] {
        command = [topic, &app] {
            try {
                app.clear();  // else the parser explains the command that it has read, which is this one
                fmt::print("{}", topic->empty() ? app.help() : app.get_subcommand(*topic)->help());
            } catch (const CLI::OptionNotFound&) {
                throw UsageError(fmt::format("there is no command \"{}\"; gsve help lists them", *topic));
            }
            return 0;
        };
    });
}

std::string version() {
    const unsigned codec = avcodec_version();
    return fmt::format("gsve {} (libavcodec {}.{}.{})", GSVE_VERSION, AV_VERSION_MAJOR(codec),
                       AV_VERSION_MINOR(codec), AV_VERSION_MICRO(codec));
}

int complain(std::string_view text, int status) {
    fmt::print(stderr, "gsve: {}\n", text);
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Encodes video for broadcast: MPEG-2, H.264 and H.265 with captions and time codes", "gsve");
    app.set_version_flag("--version", version());
    app.require_subcommand(1);
    Command command;
    add_encode(app, command);
    add_settings(app, command);
    add_help(app, command);
    try {
        app.parse(argc, argv);
        return command();
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) return app.exit(error);  // --help, --version
        return complain(fmt::format("{} (gsve help explains)", error.what()), kExitUsage);
    } catch (const UsageError& error) {
        return complain(error.what(), kExitUsage);
    } catch (const std::exception& error) {
        return complain(error.what(), stop_signal() ? kExitSignal + stop_signal() : kExitFailure);
    }
}
