// Platform side of the detection-service stand-in: its five events.
#pragma once

#include <string>
#include <vector>

class ServiceEvents {
public:
    ServiceEvents() = default;
    ~ServiceEvents() { destroy(); }
    ServiceEvents(const ServiceEvents&) = delete;
    ServiceEvents& operator=(const ServiceEvents&) = delete;

    // Creates one event per name ("AGENT_..." with any prefix, without
    // "Global\" or "/"), removing stale ones of the same name first on Linux.
    // False, with the reason in `error`, when one cannot be made.
    bool create(const std::vector<std::string>& names, std::string& error);
    // Waits up to `ms` milliseconds for one of the events to be set. Returns
    // its index, or -1 when none was set.
    int wait(int ms);
    // Closes the events (and removes their names on Linux).
    void destroy();

private:
    std::vector<std::string> names_;
    std::vector<void*> handles_;
};

// Termination requests (SIGTERM, SIGINT on Linux) end the wait loop so that
// the events are still removed.
void installStopHandlers();
bool stopRequested();
