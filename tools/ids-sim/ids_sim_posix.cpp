// The stand-in's events on Linux: POSIX named semaphores "/<name>".
#include <fcntl.h>
#include <semaphore.h>
#include <signal.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "ids_sim.h"

namespace {

volatile sig_atomic_t stopFlag = 0;

void onStop(int) { stopFlag = 1; }

}  // namespace

void installStopHandlers() {
    struct sigaction sa {};
    sa.sa_handler = onStop;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
}

bool stopRequested() { return stopFlag != 0; }

bool ServiceEvents::create(const std::vector<std::string>& names, std::string& error) {
    destroy();
    for (const auto& n : names) {
        const std::string name = "/" + n;
        ::sem_unlink(name.c_str());  // a stale one from a killed run
        sem_t* s = ::sem_open(name.c_str(), O_CREAT | O_EXCL, 0600, 0u);
        if (s == SEM_FAILED) {
            error = "cannot create " + name + ": " + std::strerror(errno);
            destroy();
            return false;
        }
        names_.push_back(name);
        handles_.push_back(s);
    }
    return true;
}

int ServiceEvents::wait(int ms) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    do {
        for (size_t i = 0; i < handles_.size(); ++i) {
            if (::sem_trywait(static_cast<sem_t*>(handles_[i])) == 0) return static_cast<int>(i);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    } while (std::chrono::steady_clock::now() < deadline);
    return -1;
}

void ServiceEvents::destroy() {
    for (size_t i = 0; i < handles_.size(); ++i) {
        ::sem_close(static_cast<sem_t*>(handles_[i]));
        ::sem_unlink(names_[i].c_str());
    }
    handles_.clear();
    names_.clear();
}
