#include "cli/commands.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <system_error>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <CLI/CLI.hpp>

#include "cli/encode/encode.h"
#include "cli/exit_status.h"
#include "cli/farm/farm.h"
#include "cli/inspect/inspect.h"
#include "cli/parser.h"
#include "cli/plan/plan.h"
#include "cli/stop.h"
#include "cli/version.h"
#include "encoding/error.h"
#include "report/settings_report.h"
#include "report/treatments_report.h"

namespace {

using namespace gsve;
using namespace gsve::cli;

using Command = std::function<int()>;

constexpr std::string_view kHtmlPrefix = "html=";

const std::map<std::string, ReportFormat> kReports = {{"text", ReportFormat::kText},
                                                      {"json", ReportFormat::kJson}};

// Each command adds its options to the parser, and itself as what is to run once they have been read.

bool names_page(const std::string& report) {
    return report.starts_with(kHtmlPrefix) && report.size() > kHtmlPrefix.size();
}

void add_ancillary_options(CLI::App& app, const std::shared_ptr<EncodeOptions>& options) {
    CLI::Option* files =
        app.add_option("--captions", options->captions.files,
                       "SCC, MCC, SRT or WebVTT file, in place of the input's captions; a second file is "
                       "for the other field")
            ->take_all()
            ->expected(1)
            ->allow_extra_args(false)
            ->check(CLI::ExistingFile);
    app.add_option("--captions-field", options->captions.field, "Field of the (first) file: 1 (default) or 2")
        ->check(CLI::Range(1, 2))
        ->needs(files);
    app.add_option("--captions-start", options->captions.start,
                   "Time code in the file that is the first picture's; SRT, WebVTT: HH:MM:SS[.mmm], too; "
                   "default 00:00:00:00")
        ->needs(files);
    app.add_option("--caption-rows", options->captions.rows, "SRT, WebVTT: rows of a caption; default 2")
        ->check(CLI::Range(1, 15))
        ->needs(files);
    app.add_flag("!--no-captions", options->captions.carry_over, "Leave the input's captions out")
        ->excludes(files);
    app.add_flag("--scte20", options->captions.scte20,
                 "MPEG-2: send EIA-608 captions as SCTE 20 user data, too");
    app.add_option("--timecode", options->timecode,
                   "Time code of the first picture, HH:MM:SS:FF, HH:MM:SS;FF (drop-frame), or "
                   "\"source\": the input's");
}

void add_bit_rate(CLI::App& app, const char* name, int64_t& rate, const char* description) {
    app.add_option(name, rate, description)
        ->transform(CLI::AsNumberWithUnit(std::map<std::string, int64_t>{{"k", 1000}, {"M", 1'000'000}}))
        ->check(CLI::PositiveNumber)
        ->type_name("BITS");
}

void add_stream_options(CLI::App& app, const std::shared_ptr<EncodeOptions>& options) {
    app.add_option("--streams", options->choice.streams,
                   "The input's streams to take, by their numbers: 0,2,3; default: all that the output takes")
        ->delimiter(',')
        ->type_name("LIST");
    app.add_option_function<int>(
           "--program", [options](int number) { options->choice.program = number; },
           "Of a transport stream with several programs, the one to encode; default: that of the best "
           "picture")
        ->type_name("N");
    app.add_option_function<std::string>(
           "--sound",
           [options](const std::string& codec) { options->sound.codec = codec == "copy" ? "" : codec; },
           "copy (default: as it is, or as aac where the output does not take it), aac, ac3, eac3 or mp2")
        ->check(CLI::IsMember({"copy", "aac", "ac3", "eac3", "mp2"}));
    add_bit_rate(app, "--sound-bitrate", options->sound.bit_rate,
                 "Bits/s of each track that is encoded, as 384k; default: by its channels");
    app.add_option("--sound-layout", options->sound.layout,
                   "Channels of each track that is encoded: mono, stereo, 5.1; default: the source's");
    app.add_option("--sound-rate", options->sound.sample_rate,
                   "Samples/s of each track that is encoded; default: the source's")
        ->check(CLI::PositiveNumber)
        ->type_name("HZ");
    CLI::Option* loudness =
        app.add_option_function<double>(
               "--loudness", [options](double level) { options->sound.loudness = level; },
               "Bring each track to this loudness, in LUFS: -23 by EBU R 128, -24 by ATSC A/85. The input is "
               "read twice; sound that would be copied is encoded")
            ->check(CLI::Range(-60.0, -5.0))
            ->type_name("LUFS");
    app.add_option("--true-peak", options->sound.true_peak,
                   "dBTP that peaks are limited to where --loudness raises them above; EBU R 128: -1, ATSC "
                   "A/85: -2")
        ->check(CLI::Range(-20.0, 0.0))
        ->needs(loudness)
        ->capture_default_str()
        ->type_name("DBTP");
    app.add_flag_callback(
        "--no-sound", [options] { options->choice.sound = false; }, "Leave the sound out");
    add_bit_rate(app, "--mux-rate", options->transport.rate,
                 "Bits/s of a transport stream of constant rate, as 12M");
    app.add_option("--service-name", options->transport.service,
                   "Of a transport stream; default: the input's");
    app.add_option("--provider", options->transport.provider, "Of a transport stream; default: the input's");
    app.add_option("--program-number", options->transport.program, "Of a transport stream; default: 1")
        ->check(CLI::Range(1, 65535))
        ->type_name("N");
    app.add_option("--pmt-pid", options->transport.pmt_pid, "PID of the program's table; default: 0x1000")
        ->type_name("PID");
    app.add_option("--pids", options->transport.pids,
                   "PIDs of the picture and the other streams, in their order; default: from 0x100 on")
        ->delimiter(',')
        ->type_name("LIST");
    app.add_option("--segments", options->hls.segments, "HLS: ts or fmp4; default: fmp4 for h.265, else ts")
        ->check(CLI::IsMember({"ts", "fmp4"}));
    app.add_option("--segment-seconds", options->hls.seconds, "HLS: length of a segment")
        ->check(CLI::Range(0.5, 60.0))
        ->capture_default_str()
        ->type_name("SECONDS");
    app.add_option(
           "--colour", options->colour,
           "Between high and standard definition: convert samples from one's matrix to the other's, or "
           "keep them")
        ->check(CLI::IsMember({"convert", "keep"}))
        ->capture_default_str();
    app.add_option("--longest-repeat", options->longest_repeat,
                   "Seconds for which a pause in a file's pictures is filled with the last one; a longer "
                   "pause stays a pause in the output's times")
        ->check(CLI::NonNegativeNumber)
        ->capture_default_str()
        ->type_name("SECONDS");
}

void add_input_and_output(CLI::App& app, const std::shared_ptr<EncodeOptions>& options) {
    app.add_option("INPUT", options->input, "Any file that libavformat opens; - is standard input")
        ->required();
    app.add_option("--format", options->format,
                   "Of the output, as a file's extension: ts, mp4, ...; default: by its name")
        ->type_name("EXTENSION");
    app.add_option("OUTPUT", options->output,
                   "Elementary stream (.m2v .h264 .264 .h265 .265 .hevc) or container (.ts .mp4 .mov .mkv "
                   ".mxf) or HLS (.m3u8); - is standard output")
        ->required();
}

void add_programme_options(CLI::App& app, const std::shared_ptr<EncodeOptions>& options) {
    app.add_option("-c,--codec", options->codec, "Default: by the output's name, h.264 in containers")
        ->check(CLI::IsMember({"mpeg-2", "h.264", "h.265"}));
    app.add_option("-s,--set", options->settings,
                   "\"KEY=VALUE\", repeatable; \"gsve settings\" lists the keys, and what \"KEY=\" sets")
        ->take_all()
        ->expected(1)
        ->allow_extra_args(false);
    app.add_option("--rate", options->frame_rate,
                   "Make this the source's frame rate: 25, 30000/1001, ...; 1 to 1000");
    add_stream_options(app, options);
    add_ancillary_options(app, options);
}

void add_encode(CLI::App& app, Command& command) {
    auto options = std::make_shared<EncodeOptions>();
    CLI::App* encode_app = app.add_subcommand("encode", "Encode a media file to MPEG-2, H.264 or H.265");
    add_input_and_output(*encode_app, options);
    add_programme_options(*encode_app, options);
    encode_app->add_flag("--adapt", options->adapt,
                         "MPEG-2: let quality follow the processor's load, as on air; without it the same "
                         "input gives the same bytes on the same number of threads");
    encode_app
        ->add_option("--decoder-threads", options->decoder_threads,
                     "For the input's pictures; 0: one for each processor, or a single one where its codec "
                     "would divide each picture")
        ->check(CLI::Range(0, 64));
    encode_app->add_flag(
        "--quality", options->quality,
        "Measure PSNR and SSIM of each picture as a decoder makes it, against the picture as "
        "the codec was given it");
    encode_app
        ->add_option_function<std::vector<std::string>>(
            "--report",
            [options](const std::vector<std::string>& reports) {
                for (const std::string& report : reports)
                    if (const auto known = kReports.find(report); known != kReports.end())
                        options->report = known->second;
                    else
                        options->page = report.substr(kHtmlPrefix.size());
            },
            "text: print the encoder's status pairs; json: print everything; html=FILE: write a page with "
            "charts of the finished output; repeatable")
        ->check(CLI::Validator(
            [](const std::string& what) {
                return kReports.contains(what) || names_page(what)
                           ? std::string()
                           : fmt::format("\"{}\" is none of text, json and html=FILE", what);
            },
            "text|json|html=FILE"))
        ->take_all()
        ->expected(1)
        ->allow_extra_args(false);
    encode_app->add_flag(
        "--strict", options->strict,
        "Exit with 1 where the input is damaged or ends early; the output is complete all the "
        "same");
    encode_app->add_flag("-y,--overwrite", options->overwrite, "Overwrite OUTPUT");
    encode_app->add_flag("-q,--quiet", options->quiet, "No notes, progress or summary; errors remain");
    encode_app->add_flag("-v,--verbose", options->verbose,
                         "Show what the encoder and the codecs report, as it comes; else it is shown where "
                         "the encoding fails");
    encode_app->callback([options, &command] { command = [options] { return encode(*options); }; });
}

void add_plan(CLI::App& app, Command& command) {
    auto options = std::make_shared<PlanOptions>();
    // Of the options of an encoding, which the plan is of.
    const std::shared_ptr<EncodeOptions> encode(options, &options->encode);
    CLI::App* plan_app =
        app.add_subcommand("plan", "Divide an encoding into chunks that any machines do in any order");
    add_input_and_output(*plan_app, encode);
    add_programme_options(*plan_app, encode);
    plan_app->add_option("--chunks", options->chunk_seconds, "Length of a chunk, as 60s or 5m")
        ->transform(CLI::AsNumberWithUnit(std::map<std::string, double>{{"s", 1}, {"m", 60}, {"h", 3600}},
                                          CLI::AsNumberWithUnit::UNIT_OPTIONAL))
        ->check(CLI::PositiveNumber)
        ->default_str("60s")
        ->type_name("TIME");
    plan_app
        ->add_option("-o,--plan", options->plan, "The plan's file; chunks are left in a directory beside it")
        ->required()
        ->type_name("PLAN");
    plan_app->add_flag("-y,--overwrite", options->encode.overwrite, "Overwrite PLAN");
    plan_app->add_flag("-q,--quiet", options->encode.quiet, "No notes or summary; errors remain");
    plan_app->add_flag("-v,--verbose", options->encode.verbose, "Show what the codecs report");
    plan_app->callback([options, &command] { command = [options] { return plan(*options); }; });
}

void add_task_options(CLI::App& app, const std::shared_ptr<TaskOptions>& options) {
    app.add_option("PLAN", options->plan, "As gsve plan wrote it")->required();
    app.add_option("--directory", options->directory,
                   "Where the chunks are; default: beside the plan, by its name without .json")
        ->type_name("DIRECTORY");
    app.add_flag("-q,--quiet", options->quiet, "No notes, progress or summary; errors remain");
    app.add_flag("-v,--verbose", options->verbose, "Show what the encoder and the codecs report");
}

void add_chunk(CLI::App& app, Command& command) {
    auto options = std::make_shared<TaskOptions>();
    CLI::App* chunk_app = app.add_subcommand("chunk", "Encode one chunk of a plan, or its sound");
    add_task_options(*chunk_app, options);
    chunk_app->add_option("CHUNK", options->task, "Number from 0, or \"sound\"")->required();
    chunk_app
        ->add_option("--save", options->saved,
                     "So many bits less in its last GOPs, where gsve join finds that the next chunk lacks "
                     "them")
        ->type_name("BITS");
    chunk_app->callback([options, &command] { command = [options] { return chunk(*options); }; });
}

void add_join_options(CLI::App& app, const std::shared_ptr<TaskOptions>& options) {
    add_task_options(app, options);
    app.add_option("OUTPUT", options->output, "Default: the plan's, which has to lie beside it or below");
    app.add_flag("-y,--overwrite", options->overwrite, "Overwrite OUTPUT");
}

void add_join(CLI::App& app, Command& command) {
    auto options = std::make_shared<TaskOptions>();
    CLI::App* join_app = app.add_subcommand("join", "Put the chunks of a plan together");
    add_join_options(*join_app, options);
    join_app->callback([options, &command] { command = [options] { return join(*options); }; });
}

void add_job_options(CLI::App& app, const std::shared_ptr<FarmSubmitOptions>& options) {
    app.add_option("--output", options->output,
                   "Of a single plan; default: the plan's, which has to lie beside it or below");
    app.add_flag("-y,--overwrite", options->overwrite, "Overwrite what the plans are for");
    app.add_option("--memory", options->jobs.memory,
                   "Megabytes of a task; default: estimated from the size of the picture")
        ->check(CLI::PositiveNumber)
        ->type_name("MB");
    app.add_option("--cpus", options->jobs.processors, "Of a chunk; default: the plan's threads")
        ->check(CLI::PositiveNumber)
        ->type_name("N");
    app.add_option("--at-once", options->jobs.at_once,
                   "Chunks of a plan that may run at a time; default: all")
        ->check(CLI::PositiveNumber)
        ->type_name("N");
    app.add_option("--gsve", options->jobs.program, "The gsve of the nodes; default: this one, by its path")
        ->type_name("PATH");
    app.add_option("--sbatch", options->jobs.cluster,
                   "An option for sbatch, repeatable: --sbatch=--partition=video")
        ->take_all()
        ->expected(1)
        ->allow_extra_args(false)
        ->type_name("OPTION");
}

void add_duration(CLI::App& app, const char* name, double& seconds, const char* description) {
    app.add_option(name, seconds, description)
        ->transform(CLI::AsNumberWithUnit(std::map<std::string, double>{{"s", 1}, {"m", 60}, {"h", 3600}},
                                          CLI::AsNumberWithUnit::UNIT_OPTIONAL))
        ->check(CLI::PositiveNumber)
        ->type_name("TIME");
}

void add_file_options(CLI::App& app, const std::shared_ptr<FarmSubmitOptions>& options) {
    FarmFilesOptions& files = options->files;
    CLI::Option* directory =
        app.add_option("--output-directory", files.directory,
                       "Encode media files into this directory, each as a task, with the options below")
            ->type_name("DIRECTORY");
    CLI::App* group = app.add_option_group("Files", "How files are encoded, as by gsve encode");
    group
        ->add_option("--files-from", files.files_from,
                     "A file with the names of more files: with NULs between them, or a line each; -: "
                     "standard input")
        ->type_name("LIST");
    add_duration(*group, "--longest", files.longest,
                 "A file that is longer is divided in chunks; default: 10m");
    add_duration(*group, "--chunks", files.chunk_seconds, "Length of these chunks; default: 60s");
    group->add_option("--format", files.encode.format, "Of the outputs, as a file's extension; default: ts")
        ->type_name("EXTENSION");
    add_programme_options(*group, std::shared_ptr<EncodeOptions>(options, &files.encode));
    for (CLI::Option* option : group->get_options()) option->needs(directory);
}

void add_farm(CLI::App& app, Command& command) {
    CLI::App* farm_app = app.add_subcommand("farm", "Run plans on a Slurm cluster");
    farm_app->require_subcommand(1);

    auto submit = std::make_shared<FarmSubmitOptions>();
    CLI::App* submit_app = farm_app->add_subcommand(
        "submit", "Submit the chunks of plans, their sound and, when these are done, the joining");
    submit_app->add_option("PLAN", submit->plans,
                           "As gsve plan wrote it, on storage that all nodes share; with --output-directory, "
                           "a media file");
    add_job_options(*submit_app, submit);
    add_file_options(*submit_app, submit);
    submit_app->callback([submit, &command] { command = [submit] { return farm_submit(*submit); }; });

    auto status = std::make_shared<FarmStatusOptions>();
    CLI::App* status_app = farm_app->add_subcommand(
        "status", "Show how far plans are, and what failed; the exit status is 1 where anything did");
    status_app->add_option("PLAN", status->plans,
                           "Or a directory of submitted plans; default: this directory");
    status_app->add_flag("--json", status->json, "As JSON, with every task");
    status_app->add_option("--html", status->page, "Write a page to this file")->type_name("FILE");
    status_app->add_flag("-y,--overwrite", status->overwrite, "Overwrite the file of --html");
    status_app->callback([status, &command] { command = [status] { return farm_status(*status); }; });

    auto retry = std::make_shared<FarmSubmitOptions>();
    CLI::App* retry_app = farm_app->add_subcommand(
        "retry", "Submit again what of plans is neither done nor in the queue, or does not fit");
    retry_app->add_option("PLAN", retry->plans, "Or a directory of submitted plans; default: this directory");
    add_job_options(*retry_app, retry);
    retry_app->callback([retry, &command] { command = [retry] { return farm_retry(*retry); }; });

    auto list = std::make_shared<std::pair<std::string, std::string>>();
    CLI::App* encode_app = farm_app->add_subcommand("encode", "Encode one file of a list that was submitted");
    encode_app->add_option("LIST", list->first)->required();
    encode_app->add_option("FILE", list->second, "Number from 0")->required();
    encode_app->callback(
        [list, &command] { command = [list] { return farm_encode(list->first, list->second); }; });

    auto join = std::make_shared<TaskOptions>();
    CLI::App* join_app = farm_app->add_subcommand(
        "join", "As gsve join, after encoding chunks again that leave the next one too few bits");
    add_join_options(*join_app, join);
    join_app->callback([join, &command] { command = [join] { return farm_join(*join); }; });
}

void add_inspect(CLI::App& app, Command& command) {
    auto options = std::make_shared<InspectOptions>();
    CLI::App* inspect_app =
        app.add_subcommand("inspect", "Show a stream's pictures, GOPs, time codes and captions");
    inspect_app->add_option("FILE", options->input, "Any file that libavformat opens")->required();
    inspect_app->add_flag("--json", options->json, "As JSON");
    CLI::Option* scc =
        inspect_app->add_option("--scc", options->scc, "Write the EIA-608 byte pairs to this file");
    inspect_app->add_option("--field", options->scc_field, "The field to write: 1 (default) or 2")
        ->check(CLI::IsMember({1, 2}))
        ->needs(scc);
    inspect_app
        ->add_option_function<std::string>(
            "--report",
            [options](const std::string& what) { options->page = what.substr(kHtmlPrefix.size()); },
            "Write a page with charts to this file: html=FILE")
        ->check(CLI::Validator(
            [](const std::string& what) {
                return names_page(what) ? std::string() : fmt::format("\"{}\" is not html=FILE", what);
            },
            "html=FILE"));
    inspect_app->add_flag("-y,--overwrite", options->overwrite, "Overwrite the files of --scc and --report");
    inspect_app->add_flag("--pictures", options->pictures, "List every GOP and picture");
    inspect_app->add_flag("--buffer", options->buffer,
                          "Check that the pictures keep to the decoder's buffer that the stream declares");
    inspect_app->callback([options, &command] { command = [options] { return inspect(*options); }; });
}

void add_settings(CLI::App& app, Command& command) {
    using List = std::string (*)();
    auto list = std::make_shared<List>(report::settings_text);
    CLI::App* settings_app =
        app.add_subcommand("settings", "List all settings: key, default, syntax, meaning");
    const auto add_form = [&](const char* name, List form, const char* description) {
        return settings_app->add_flag_callback(
            name, [list, form] { *list = form; }, description);
    };
    CLI::Option* json = add_form("--json", report::settings_json, "As JSON");
    add_form("--markdown", report::settings_markdown, "As tables in Markdown")->excludes(json);
    settings_app->callback([list, &command] {
        command = [list] {
            fmt::print("{}", (*list)());
            return 0;
        };
    });
}

void add_streams(CLI::App& app, Command& command) {
    using List = std::string (*)();
    auto list = std::make_shared<List>(report::treatments_text);
    CLI::App* streams_app =
        app.add_subcommand("streams", "List which streams each container carries, converts or leaves out");
    streams_app->add_flag_callback(
        "--markdown", [list] { *list = report::treatments_markdown; }, "As a table in Markdown");
    streams_app->callback([list, &command] {
        command = [list] {
            fmt::print("{}", (*list)());
            return 0;
        };
    });
}

/// The command of these words, as "farm submit". Throws UsageError where there is none.
CLI::App& command_named(CLI::App& app, const std::vector<std::string>& words) try {
    CLI::App* command = &app;
    for (const std::string& word : words) command = command->get_subcommand(word);
    return *command;
} catch (const CLI::OptionNotFound&) {
    throw UsageError(fmt::format("there is no command \"{}\"; gsve help lists them", fmt::join(words, " ")));
}

/// What stands in front of the command's own name.
std::string parents_of(const CLI::App& command) {
    std::string parents;
    for (const CLI::App* parent = command.get_parent(); parent; parent = parent->get_parent())
        parents = parent->get_name() + (parents.empty() ? "" : " ") + parents;
    return parents;
}

void add_help(CLI::App& app, Command& command) {
    auto topic = std::make_shared<std::vector<std::string>>();
    CLI::App* help_app = app.add_subcommand("help", "Explain a command");
    help_app->add_option("COMMAND", *topic, "As encode, or farm submit; default: the program");
    help_app->callback([topic, &app, &command] {
        command = [topic, &app] {
            app.clear();  // else the parser explains the command that it has read, which is this one
            const CLI::App& explained = command_named(app, *topic);
            fmt::print("{}", explained.help(parents_of(explained)));
            return 0;
        };
    });
}

int complain(std::string_view text, int status) {
    fmt::print(stderr, "gsve: {}\n", text);
    return status;
}

int complain_of_lost_results(int error) {
    return complain(fmt::format("cannot write the results to standard output: {}; send it elsewhere",
                                std::strerror(error)),
                    kExitFailure);
}

void add_commands(CLI::App& app, Command& command) {
    app.name("gsve");
    app.description("Encodes video for broadcast: MPEG-2, H.264 and H.265 with captions and time codes");
    app.set_version_flag("--version", version());
    app.require_subcommand(0, 1);  // with 1 required, the parser would not name an unknown word
    add_encode(app, command);
    add_inspect(app, command);
    add_plan(app, command);
    add_chunk(app, command);
    add_join(app, command);
    add_farm(app, command);
    add_settings(app, command);
    add_streams(app, command);
    add_help(app, command);
}

int run_command(int argc, const char* const* argv) {
    CLI::App app;
    Command command;
    add_commands(app, command);
    try {
        app.parse(argc, argv);
        if (!command) throw UsageError("a command is missing (gsve help lists them)");
        return command();
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) return app.exit(error);  // --help, --version
        std::string topic;
        for (const CLI::App* at = &app; !at->get_subcommands().empty();) {
            at = at->get_subcommands().front();
            topic += " " + at->get_name();
        }
        return complain(fmt::format("{} (gsve help{} explains)", error.what(), topic), kExitUsage);
    } catch (const UsageError& error) {
        return complain(error.what(), kExitUsage);
    } catch (const std::system_error& error) {
        if (!std::ferror(stdout)) return complain(error.what(), kExitFailure);
        return complain_of_lost_results(error.code().value());
    } catch (const std::exception& error) {
        return complain(error.what(), stop_signal() ? kExitSignal + stop_signal() : kExitFailure);
    }
}

/// Results that were lost on the way out are a failure, where there was none before.
int deliver_results(int status) {
    if (std::fflush(stdout) == 0 && !std::ferror(stdout)) return status;
    const int error = errno;
    return status == kExitFailure || status == kExitUsage ? status : complain_of_lost_results(error);
}

}  // namespace

void gsve::cli::with_parser(const std::function<void(const CLI::App&)>& read) {
    CLI::App app;
    Command command;
    add_commands(app, command);
    read(app);
}

int gsve::cli::run(int argc, const char* const* argv) { return deliver_results(run_command(argc, argv)); }
