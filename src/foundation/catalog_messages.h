// The numbered messages the program logs, named as the message catalog
// (Message.txt) names them. One row per message: its symbolic name, its
// number and how many arguments the catalog's text takes (its
// placeholders). The row makes a constant of type Message<arguments>; the
// logging calls (logMessage, ConfigToolLog::logNumbered) take that type
// and check at compile time that they pass that many arguments, and
// catalog_messages_test.cpp holds every row against the demo installation's
// catalog.
#pragma once

#define ZELIPS_CATALOG_MESSAGES(X)        \
    X(CFG_NO_PATH, 10000, 1)              \
    X(CFG_OPEN_FAILED, 10001, 3)          \
    X(CFG_UNKNOWN_KEY, 10002, 2)          \
    X(CFG_FALLBACK_USED, 10008, 1)        \
    X(REG_FAILED, 10100, 2)               \
    X(REG_RETRY, 10102, 1)                \
    X(REG_DONE, 10103, 0)                 \
    X(REG_BUILTIN_POLICY, 10104, 0)       \
    X(DRV_OPEN_FAILED, 10112, 2)          \
    X(DRV_EVENT_FAILED, 10116, 1)         \
    X(DRV_WAIT_ABANDONED, 10117, 1)       \
    X(DRV_TIMEOUT, 10118, 1)              \
    X(DRV_REQUEST_FAILED, 10119, 2)       \
    X(COMM_SERVER_CHANGED, 10168, 2)      \
    X(COMM_TEST_SERVER_CHANGED, 10169, 2) \
    X(COMM_REINIT, 10202, 0)              \
    X(COMM_OK, 10219, 1)                  \
    X(COMM_INTERNAL, 10221, 1)            \
    X(COMM_HTTP_STATUS, 10222, 1)         \
    X(COMM_ERROR, 10223, 1)               \
    X(COMM_NO_HANDLE, 10224, 0)           \
    X(COMM_REINIT_FAILED, 10225, 0)       \
    X(SETTING_CHANGED, 10300, 2)          \
    X(SETTING_FAILED, 10301, 2)           \
    X(FORCE_REREGISTER, 10302, 0)         \
    X(POLICY_BUILTIN, 10303, 0)           \
    X(ROLL_AGENT_LOG, 10305, 0)           \
    X(ROLL_CSV_LOG, 10306, 0)             \
    X(IDS_NOT_PRESENT, 10309, 0)          \
    X(TRACE_ON, 10310, 0)                 \
    X(TRACE_OFF, 10311, 0)                \
    X(RETRANSLATE, 10312, 0)              \
    X(IPS_NOT_INSTALLED, 10313, 0)        \
    X(IPS_DISABLE_REG_FAILED, 10315, 0)   \
    X(IPS_ENABLE_REG_FAILED, 10316, 0)    \
    X(IPS_DISABLED, 10317, 0)             \
    X(IPS_ENABLED, 10318, 0)              \
    X(IPS_DISABLED_REBOOT, 10319, 0)      \
    X(IPS_ENABLED_REBOOT, 10320, 0)       \
    X(POLICY_APPLIED, 10321, 1)           \
    X(POLICY_APPLIED_FAILED, 10322, 0)    \
    X(IPS_ALREADY_DISABLED, 10323, 0)     \
    X(IPS_ALREADY_ENABLED, 10324, 0)      \
    X(EDIT_DONE, 10360, 1)                \
    X(EDIT_FAILED, 10361, 2)              \
    X(DRV_AVAILABLE, 10400, 1)            \
    X(FIPS_ON, 10503, 0)                  \
    X(FIPS_OFF, 10504, 0)

namespace catalog {

// A catalog message whose text takes `Arguments` arguments.
template <int Arguments>
struct Message {
    int number;
};

#define ZELIPS_CATALOG_CONSTANT(name, number, arguments) inline constexpr Message<arguments> name{number};
ZELIPS_CATALOG_MESSAGES(ZELIPS_CATALOG_CONSTANT)
#undef ZELIPS_CATALOG_CONSTANT

// Every row, for the test that holds them against the catalog.
struct Row {
    const char* name;
    int number;
    int arguments;
};
#define ZELIPS_CATALOG_ROW(name, number, arguments) {#name, number, arguments},
inline constexpr Row kAll[] = {ZELIPS_CATALOG_MESSAGES(ZELIPS_CATALOG_ROW)};
#undef ZELIPS_CATALOG_ROW

}  // namespace catalog
