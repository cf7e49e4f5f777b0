// Two process-wide integers set once at start-up: which program uses the
// configuration store (1 the agent, 2 the configuration tool) and the kind of
// installation (agent type 0 to 3).
#pragma once

namespace ProcessRole {
constexpr int Agent = 1;
constexpr int ConfigTool = 2;
int get();
void set(int role);
}  // namespace ProcessRole

// The kind of installation, read once at start-up. Only 1, 2 and 3 are
// recorded; the first value in that range is final. Anything else leaves the
// type at 0 and recording open.
namespace AgentType {
int get();
void record(int type);
bool isServerManaged();  // type 1
bool isType2();
bool isType2Or3();
bool isLocalWhitelist();  // type 3
// Tests only: forget the recorded type.
void resetForTests();
}  // namespace AgentType
