// The NSApplication delegate through which AppKit's termination question (Quit, logout, restart,
// shutdown) reaches the application host, so that the system waits for the agent's stop instead
// of ending the program under it, and through which AppKit reports how the program was started.
// Built only on macOS.
#pragma once

class ApplicationHost;

// Must run before the QApplication is constructed: Qt's cocoa platform then installs its own
// delegate in front of this one and forwards to it every message it answers itself only when
// no earlier delegate does, applicationShouldTerminate: among them. Installs nothing unless the
// application object will run on Qt's cocoa plugin (not under offscreen, as in the tests, where
// no NSApplication must be created).
void installAppKitApplicationDelegate();

// The host that answers from now on; until it is set, a termination is granted at once. With the
// delegate installed, the host's launch waits for AppKit's end of launching and its activation
// policy reaches NSApp; without it, nothing changes.
void connectAppKitApplicationDelegate(ApplicationHost *host);
