// The NSApplication delegate through which AppKit's termination question (Quit, logout, restart,
// shutdown) reaches the application host, so that the system waits for the agent's stop instead
// of ending the program under it. Built only on macOS.
#pragma once

class ApplicationHost;

// Must run before the QApplication is constructed: Qt's cocoa platform then installs its own
// delegate in front of this one and forwards to it every message it answers itself only when
// no earlier delegate does, applicationShouldTerminate: among them.
void installAppKitApplicationDelegate();

// The host that answers from now on; until it is set, a termination is granted at once.
void connectAppKitApplicationDelegate(ApplicationHost *host);
