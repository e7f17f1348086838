// Which menu items can be chosen in a given state.
#pragma once

struct MenuState {
    bool agentIsRunning = false;
    bool startInFlight = false;
    bool stopInFlight = false;
    bool runtimeDirectoryResolved = true;
};

struct MenuAvailability {
    bool start = false;
    bool stop = false;
    bool pages = false; // "Open Getting Started" and "Open Startup Status"

    friend bool operator==(const MenuAvailability &, const MenuAvailability &) = default;
};

// Each command item is held back only by its own command being in flight; the page items need
// a runtime folder. Every other item is always enabled.
constexpr MenuAvailability menuAvailability(const MenuState &state)
{
    return {!state.startInFlight && !state.agentIsRunning, !state.stopInFlight && state.agentIsRunning,
            state.runtimeDirectoryResolved};
}
