#include "cli/commands.h"

int main(int argc, char** argv) { return gsve::cli::run(argc, argv); }
