#include "app/CommandLine.h"

#include <cstdio>
#include <string_view>

namespace {

constexpr const char *usage = "Usage: quillmere-menu [--launched-at-login]\n"
                              "\n"
                              "Tray controller for the local Quillmere agent: shows whether it runs, starts it\n"
                              "when the program starts and stops it when the program quits.\n"
                              "\n"
                              "  --launched-at-login  started by the desktop session at login\n"
                              "  --help               print this help and exit\n"
                              "  --version            print the version and exit\n"
                              "\n"
                              "Log: $XDG_DATA_HOME/TallyholdAgent/runtime/logs/menu-app.log\n";

} // namespace

std::optional<int> answerInformationalOption(int argc, const char *const argv[])
{
    for (int i = 1; i < argc; ++i) {
        const std::string_view argument = argv[i];
        if (argument == "--help") {
            std::fputs(usage, stdout);
            return 0;
        }
        if (argument == "--version") {
            std::puts("quillmere-menu " QUILLMERE_VERSION);
            return 0;
        }
    }
    return std::nullopt;
}
