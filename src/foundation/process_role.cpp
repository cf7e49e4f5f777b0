#include "foundation/process_role.h"

#include <atomic>

namespace {
std::atomic<int> g_role{0};
}

int ProcessRole::get() { return g_role.load(std::memory_order_relaxed); }
void ProcessRole::set(int role) { g_role.store(role, std::memory_order_relaxed); }

namespace {
std::atomic<int> g_agentType{0};
std::atomic<bool> g_agentTypeFinal{false};
}  // namespace

int AgentType::get() { return g_agentType.load(std::memory_order_relaxed); }

void AgentType::record(int type) {
    if (g_agentTypeFinal.load()) return;
    if (type >= 1 && type <= 3) {
        g_agentType.store(type);
        g_agentTypeFinal.store(true);
    } else {
        g_agentType.store(0);
    }
}

bool AgentType::isServerManaged() { return get() == 1; }
bool AgentType::isType2() { return get() == 2; }
bool AgentType::isType2Or3() { return get() == 2 || get() == 3; }
bool AgentType::isLocalWhitelist() { return get() == 3; }

void AgentType::resetForTests() {
    g_agentType.store(0);
    g_agentTypeFinal.store(false);
}
