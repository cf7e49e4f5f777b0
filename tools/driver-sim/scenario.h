/* The behaviour of the simulated prevention driver, free of any operating
 * system: a scenario (parsed from text, one directive a line) decides how
 * each open and each control request is answered and with which records.
 * The socket server (driver_sim.cpp) and a test kernel driver both drive it.
 *
 * Only fixed-size storage, memcpy/memset and plain arithmetic are used, so
 * this file builds as well for a kernel as for a user program. The host
 * allocates the zsim_scenario (it is large) and calls zsim_init first.
 *
 * Scenario text. '#' starts a comment line; words are separated by blanks;
 * a value may be double-quoted to hold blanks. A text value written TEXT*N
 * (unquoted, N decimal) is TEXT repeated N times.
 *
 *   open-error N        every open fails with Win32 error N
 *   shared              several openers at once (default: exclusive, a
 *                       second opener gets error 32)
 *   policy builtin=N name=T version=T id=T
 *                       the policy information record
 *   policy-error code=N text=T
 *                       the policy error record
 *   pset pid=N name=T pset=T [namelen=N] [psetlen=N]
 *   child name=T pset=T [namelen=N] [psetlen=N]
 *                       a PSET snapshot entry, and a child of the last entry
 *   process terminated=N ppid=N pid=N parent=T name=T pset=T
 *           [parentlen=N] [namelen=N] [psetlen=N]
 *                       a process dump record
 *   whitelist type=N time=N path=T
 *                       a local whitelist record (time: Windows file time)
 *   count LIST N        LIST (pset, process, whitelist) claims N records
 *   reply CODE HOW [status=N] [needs=N] [delay=MS] [times=N]
 *                       how requests with CODE are answered
 *
 * A counted string's length word is the text's length unless namelen=,
 * psetlen= or parentlen= gives another; only as many characters as the
 * field has room for are stored.
 *
 * CODE is a name (new-policy, roll-profile-log, roll-driver-log,
 * use-builtin, pset-snapshot, query-policy, policy-error, process-dump,
 * local-whitelist), a number (0x8000400E) or "any". HOW is one of
 *   immediate        answered at once
 *   pending          pending, completed after delay= milliseconds
 *   pending-forever  pending, never completed
 *   abandoned        the wait is abandoned
 *   wait-failed      the wait fails
 *   silent           no answer at all
 * The request ends with status= (default 0). With status 0 the answer
 * carries the request's records; when the output buffer has room for fewer
 * than needs= records (or for fewer than the list holds) it ends with 234
 * (more data) instead. times=N applies the rule to the next N requests with
 * that code, then the next rule for the code takes over; the last rule for a
 * code stays. Requests without a rule are answered at once with status 0.
 *
 * A use-builtin request that succeeds sets the builtin flag of later policy
 * information answers to its input word.
 */
#ifndef ZELIPS_DRIVER_SIM_SCENARIO_H
#define ZELIPS_DRIVER_SIM_SCENARIO_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* How a request is answered: the first four are the device protocol's
 * dispositions, the last two the simulator's own ways of not answering. */
enum {
    ZSIM_IMMEDIATE = 0,
    ZSIM_PENDING = 1,
    ZSIM_ABANDONED = 2,
    ZSIM_WAIT_FAILED = 3,
    ZSIM_PENDING_FOREVER = 4,
    ZSIM_SILENT = 5
};

#define ZSIM_MAX_RULES 64
#define ZSIM_LIST_BYTES (512u * 1024u)
#define ZSIM_POLICY_INFO_BYTES 1028u
#define ZSIM_POLICY_ERROR_BYTES 516u
#define ZSIM_PSET_RECORD_BYTES 656u
#define ZSIM_PSET_CHILD_BYTES 648u
#define ZSIM_PROCESS_RECORD_BYTES 1180u
#define ZSIM_WHITELIST_RECORD_BYTES 2064u

#define ZSIM_CODE_NEW_POLICY 0x80008001u
#define ZSIM_CODE_ROLL_PROFILE_LOG 0x80008004u
#define ZSIM_CODE_ROLL_DRIVER_LOG 0x80008008u
#define ZSIM_CODE_USE_BUILTIN 0x80008014u
#define ZSIM_CODE_PSET_SNAPSHOT 0x8000400Eu
#define ZSIM_CODE_QUERY_POLICY 0x80004018u
#define ZSIM_CODE_POLICY_ERROR 0x80004024u
#define ZSIM_CODE_PROCESS_DUMP 0x8000402Au
#define ZSIM_CODE_LOCAL_WHITELIST 0x80004036u

#define ZSIM_ERROR_SHARING_VIOLATION 32u
#define ZSIM_ERROR_INSUFFICIENT_BUFFER 122u
#define ZSIM_ERROR_MORE_DATA 234u

typedef struct zsim_rule {
    uint32_t code;
    int any_code;
    uint32_t how;
    uint32_t status;
    uint32_t needs;
    uint32_t delay_ms;
    uint32_t times; /* 0: for good */
    uint32_t used;
} zsim_rule;

typedef struct zsim_list {
    uint8_t bytes[ZSIM_LIST_BYTES]; /* the records, packed */
    uint32_t length;                /* bytes used */
    uint32_t count;                 /* records (PSET: entries) */
    uint32_t claimed;               /* the count word to send */
    int count_claimed;              /* claimed overrides count */
    uint32_t last_entry;            /* PSET: offset of the last entry */
    int has_entry;
} zsim_list;

typedef struct zsim_scenario {
    uint32_t open_error;
    int shared;
    uint8_t policy_info[ZSIM_POLICY_INFO_BYTES];
    uint8_t policy_error[ZSIM_POLICY_ERROR_BYTES];
    zsim_list pset;
    zsim_list process;
    zsim_list whitelist;
    zsim_rule rules[ZSIM_MAX_RULES];
    uint32_t rule_count;
    uint8_t reply[ZSIM_LIST_BYTES + 8]; /* the last answer's output */
} zsim_scenario;

typedef struct zsim_answer {
    uint32_t how;      /* ZSIM_IMMEDIATE ... ZSIM_SILENT */
    uint32_t status;   /* the request's final status (0 or a Win32 error) */
    uint32_t delay_ms; /* ZSIM_PENDING: when to complete */
    const uint8_t* output; /* valid until the next answer */
    uint32_t output_length;
} zsim_answer;

void zsim_init(zsim_scenario* s);

/* Applies one directive (a line without its line end). Returns 0, or -1
 * with a message in `error`. */
int zsim_parse_line(zsim_scenario* s, const char* line, size_t length, char* error, size_t error_size);

/* Applies every line of a text. Returns 0, or the 1-based number of the
 * first bad line with its message in `error`. */
int zsim_parse_text(zsim_scenario* s, const char* text, size_t length, char* error, size_t error_size);

/* The Win32 status of an open: 0 to accept. `others_open` is the number of
 * openers that hold the device now. */
uint32_t zsim_open_status(const zsim_scenario* s, uint32_t others_open);

/* Decides the answer to one request. */
void zsim_answer_request(zsim_scenario* s, uint32_t code, const uint8_t* input, uint32_t input_length,
                         uint32_t output_capacity, zsim_answer* answer);

/* The name of a control code ("pset-snapshot"), or NULL for an unknown one. */
const char* zsim_code_name(uint32_t code);

/* One line describing a request, for the simulator's record:
 *   request NAME code=0x8000400E in=N out=N data=HEX
 * (NAME is the code's name or "unknown"; data= holds the input bytes in
 * hexadecimal and is left out when there are none). Returns the length
 * written (always terminated; cut to fit). */
size_t zsim_describe_request(uint32_t code, const uint8_t* input, uint32_t input_length, uint32_t output_capacity,
                             char* out, size_t out_size);

#ifdef __cplusplus
}
#endif

#endif
