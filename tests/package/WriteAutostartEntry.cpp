// Writes the run-at-startup entry with the program's own code, so that the desktop-file checks
// judge exactly what users get:  write_autostart_entry <config folder> <program path>
#include "platform/linux/AutostartLoginItemService.h"

#include <cstdio>

int main(int argc, char *argv[])
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s <config folder> <program path>\n", argv[0]);
        return 2;
    }
    AutostartLoginItemService service(QString::fromLocal8Bit(argv[1]), QStringLiteral(QUILLMERE_BUNDLE_IDENTIFIER),
                                      QString::fromLocal8Bit(argv[2]), nullptr);
    if (const auto error = service.registerApp()) {
        std::fprintf(stderr, "%s\n", qPrintable(error->message));
        return 1;
    }
    return 0;
}
