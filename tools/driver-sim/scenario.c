/* The simulated driver's behaviour: scenario parsing and request answers.
 * No operating system calls: see scenario.h. */
#include "scenario.h"

#include <string.h>

/* ---- small text helpers ------------------------------------------------ */

typedef struct text_ref {
    const char* p;
    size_t n;
} text_ref;

static int is_blank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

static int equals(text_ref t, const char* word) {
    size_t n = strlen(word);
    return t.n == n && memcmp(t.p, word, n) == 0;
}

static void set_error(char* error, size_t size, const char* a, text_ref b) {
    size_t i = 0, j;
    if (error == NULL || size == 0) return;
    for (j = 0; a[j] != '\0' && i + 1 < size; ++j) error[i++] = a[j];
    for (j = 0; j < b.n && i + 1 < size; ++j) error[i++] = b.p[j];
    error[i] = '\0';
}

/* Splits the next word (a "quoted" word keeps its blanks). Returns 0 at the
 * end of the line. `quoted` tells whether the value part was quoted. */
static int next_word(const char** cursor, const char* end, text_ref* word, int* quoted) {
    const char* p = *cursor;
    const char* start;
    *quoted = 0;
    while (p < end && is_blank(*p)) ++p;
    if (p >= end) {
        *cursor = p;
        return 0;
    }
    start = p;
    while (p < end && !is_blank(*p)) {
        if (*p == '"') {
            *quoted = 1;
            ++p;
            while (p < end && *p != '"') ++p;
            if (p < end) ++p;
        } else {
            ++p;
        }
    }
    word->p = start;
    word->n = (size_t)(p - start);
    *cursor = p;
    return 1;
}

/* Parses an unsigned number: decimal, or hexadecimal after 0x. */
static int parse_u64(text_ref t, uint64_t* out) {
    uint64_t v = 0;
    size_t i = 0;
    int hex = 0;
    if (t.n >= 2 && t.p[0] == '0' && (t.p[1] == 'x' || t.p[1] == 'X')) {
        hex = 1;
        i = 2;
    }
    if (i >= t.n) return -1;
    for (; i < t.n; ++i) {
        char c = t.p[i];
        uint32_t d;
        if (c >= '0' && c <= '9') d = (uint32_t)(c - '0');
        else if (hex && c >= 'a' && c <= 'f') d = (uint32_t)(c - 'a' + 10);
        else if (hex && c >= 'A' && c <= 'F') d = (uint32_t)(c - 'A' + 10);
        else return -1;
        v = v * (hex ? 16u : 10u) + d;
    }
    *out = v;
    return 0;
}

/* A signed 32-bit number (for lengths, which may be negative). */
static int parse_i32(text_ref t, int32_t* out) {
    uint64_t v;
    int negative = 0;
    if (t.n > 0 && t.p[0] == '-') {
        negative = 1;
        ++t.p;
        --t.n;
    }
    if (parse_u64(t, &v) != 0 || v > 0x80000000u) return -1;
    if (!negative && v > 0x7FFFFFFFu) return -1;
    *out = negative ? (int32_t)(0 - (int64_t)v) : (int32_t)v;
    return 0;
}

static int parse_u32(text_ref t, uint32_t* out) {
    uint64_t v;
    if (parse_u64(t, &v) != 0 || v > 0xFFFFFFFFu) return -1;
    *out = (uint32_t)v;
    return 0;
}

/* ---- UTF-16 text values ------------------------------------------------ */

#define ZSIM_MAX_TEXT 4096

typedef struct wide_text {
    uint16_t c[ZSIM_MAX_TEXT];
    uint32_t n;
} wide_text;

/* Appends the UTF-8 text as UTF-16 (invalid bytes become U+FFFD), leaving
 * out double quotes when asked to. */
static void append_utf8(wide_text* w, const char* p, size_t n, int skip_quotes) {
    size_t i = 0;
    while (i < n && w->n < ZSIM_MAX_TEXT) {
        uint32_t cp = (uint8_t)p[i];
        size_t extra = 0;
        if (skip_quotes && cp == '"') {
            ++i;
            continue;
        }
        if (cp >= 0xF0 && cp < 0xF8) { cp &= 0x07; extra = 3; }
        else if (cp >= 0xE0 && cp < 0xF0) { cp &= 0x0F; extra = 2; }
        else if (cp >= 0xC0 && cp < 0xE0) { cp &= 0x1F; extra = 1; }
        else if (cp >= 0x80) { cp = 0xFFFD; }
        ++i;
        while (extra > 0) {
            if (i >= n || ((uint8_t)p[i] & 0xC0) != 0x80) { cp = 0xFFFD; break; }
            cp = (cp << 6) | ((uint8_t)p[i] & 0x3F);
            ++i;
            --extra;
        }
        if (cp >= 0x10000 && cp <= 0x10FFFF) {
            if (w->n + 2 > ZSIM_MAX_TEXT) break;
            cp -= 0x10000;
            w->c[w->n++] = (uint16_t)(0xD800 + (cp >> 10));
            w->c[w->n++] = (uint16_t)(0xDC00 + (cp & 0x3FF));
        } else {
            w->c[w->n++] = (uint16_t)(cp > 0xFFFF ? 0xFFFD : cp);
        }
    }
}

/* A value: "quoted" as it stands, else TEXT*N repeats TEXT. */
static void text_value(text_ref v, int quoted, wide_text* w) {
    size_t star = v.n;
    size_t i;
    w->n = 0;
    if (quoted) {
        append_utf8(w, v.p, v.n, 1);
        return;
    }
    for (i = 0; i < v.n; ++i)
        if (v.p[i] == '*') star = i;
    if (star < v.n) {
        text_ref count;
        uint32_t times, k;
        count.p = v.p + star + 1;
        count.n = v.n - star - 1;
        if (parse_u32(count, &times) == 0) {
            for (k = 0; k < times && w->n < ZSIM_MAX_TEXT; ++k) append_utf8(w, v.p, star, 0);
            return;
        }
    }
    append_utf8(w, v.p, v.n, 0);
}

/* ---- little-endian stores ---------------------------------------------- */

static void put_u32(uint8_t* p, uint32_t v) {
    p[0] = (uint8_t)v;
    p[1] = (uint8_t)(v >> 8);
    p[2] = (uint8_t)(v >> 16);
    p[3] = (uint8_t)(v >> 24);
}

static uint32_t get_u32(const uint8_t* p) {
    return (uint32_t)p[0] | (uint32_t)p[1] << 8 | (uint32_t)p[2] << 16 | (uint32_t)p[3] << 24;
}

/* Stores up to `room` characters of the text (the rest of the room stays zero). */
static void put_text(uint8_t* p, uint32_t room, const wide_text* w) {
    uint32_t i;
    for (i = 0; i < w->n && i < room; ++i) {
        p[2 * i] = (uint8_t)w->c[i];
        p[2 * i + 1] = (uint8_t)(w->c[i] >> 8);
    }
}

/* ---- directives ---------------------------------------------------------- */

/* The key=value pairs of a directive. */
#define MAX_FIELDS 12

typedef struct field {
    text_ref key;
    text_ref value;
    int quoted;
} field;

typedef struct fields {
    field f[MAX_FIELDS];
    int n;
} fields;

static const field* find_field(const fields* fs, const char* key) {
    int i;
    for (i = 0; i < fs->n; ++i)
        if (equals(fs->f[i].key, key)) return &fs->f[i];
    return NULL;
}

static int field_u32(const fields* fs, const char* key, uint32_t fallback, uint32_t* out) {
    const field* f = find_field(fs, key);
    if (f == NULL) {
        *out = fallback;
        return 0;
    }
    return parse_u32(f->value, out);
}

static int field_u64(const fields* fs, const char* key, uint64_t* out) {
    const field* f = find_field(fs, key);
    if (f == NULL) {
        *out = 0;
        return 0;
    }
    return parse_u64(f->value, out);
}

static void field_text(const fields* fs, const char* key, wide_text* w) {
    const field* f = find_field(fs, key);
    w->n = 0;
    if (f != NULL) text_value(f->value, f->quoted, w);
}

/* The length word of a counted string: the override, else the text's length. */
static int field_length(const fields* fs, const char* key, const wide_text* w, int32_t* out) {
    const field* f = find_field(fs, key);
    if (f == NULL) {
        *out = (int32_t)w->n;
        return 0;
    }
    return parse_i32(f->value, out);
}

static int split_fields(const char** cursor, const char* end, fields* fs) {
    text_ref word;
    int quoted;
    fs->n = 0;
    while (next_word(cursor, end, &word, &quoted)) {
        size_t eq = 0;
        field* f;
        while (eq < word.n && word.p[eq] != '=') ++eq;
        if (eq >= word.n || fs->n >= MAX_FIELDS) return -1;
        f = &fs->f[fs->n++];
        f->key.p = word.p;
        f->key.n = eq;
        f->value.p = word.p + eq + 1;
        f->value.n = word.n - eq - 1;
        f->quoted = quoted;
    }
    return 0;
}

static zsim_list* list_named(zsim_scenario* s, text_ref name) {
    if (equals(name, "pset")) return &s->pset;
    if (equals(name, "process")) return &s->process;
    if (equals(name, "whitelist")) return &s->whitelist;
    return NULL;
}

static uint8_t* list_append(zsim_list* l, uint32_t bytes) {
    uint8_t* p;
    if (l->length + bytes > ZSIM_LIST_BYTES) return NULL;
    p = l->bytes + l->length;
    memset(p, 0, bytes);
    l->length += bytes;
    return p;
}

static const struct {
    const char* name;
    uint32_t code;
} kCodes[] = {
    {"new-policy", ZSIM_CODE_NEW_POLICY},       {"roll-profile-log", ZSIM_CODE_ROLL_PROFILE_LOG},
    {"roll-driver-log", ZSIM_CODE_ROLL_DRIVER_LOG}, {"use-builtin", ZSIM_CODE_USE_BUILTIN},
    {"pset-snapshot", ZSIM_CODE_PSET_SNAPSHOT}, {"query-policy", ZSIM_CODE_QUERY_POLICY},
    {"policy-error", ZSIM_CODE_POLICY_ERROR},   {"process-dump", ZSIM_CODE_PROCESS_DUMP},
    {"local-whitelist", ZSIM_CODE_LOCAL_WHITELIST},
};

const char* zsim_code_name(uint32_t code) {
    size_t i;
    for (i = 0; i < sizeof kCodes / sizeof kCodes[0]; ++i)
        if (kCodes[i].code == code) return kCodes[i].name;
    return NULL;
}

static const struct {
    const char* name;
    uint32_t how;
} kHows[] = {
    {"immediate", ZSIM_IMMEDIATE},   {"pending", ZSIM_PENDING},           {"abandoned", ZSIM_ABANDONED},
    {"wait-failed", ZSIM_WAIT_FAILED}, {"pending-forever", ZSIM_PENDING_FOREVER}, {"silent", ZSIM_SILENT},
};

static int parse_reply(zsim_scenario* s, const char** cursor, const char* end, char* error, size_t error_size) {
    text_ref code_word, how_word;
    int quoted;
    zsim_rule rule;
    fields fs;
    size_t i;
    int found = 0;
    memset(&rule, 0, sizeof rule);
    if (!next_word(cursor, end, &code_word, &quoted) || !next_word(cursor, end, &how_word, &quoted)) {
        set_error(error, error_size, "reply needs a code and a behaviour", code_word);
        return -1;
    }
    if (equals(code_word, "any")) {
        rule.any_code = 1;
    } else {
        for (i = 0; i < sizeof kCodes / sizeof kCodes[0]; ++i) {
            if (equals(code_word, kCodes[i].name)) {
                rule.code = kCodes[i].code;
                found = 1;
            }
        }
        if (!found && parse_u32(code_word, &rule.code) != 0) {
            set_error(error, error_size, "unknown control code: ", code_word);
            return -1;
        }
    }
    found = 0;
    for (i = 0; i < sizeof kHows / sizeof kHows[0]; ++i) {
        if (equals(how_word, kHows[i].name)) {
            rule.how = kHows[i].how;
            found = 1;
        }
    }
    if (!found) {
        set_error(error, error_size, "unknown behaviour: ", how_word);
        return -1;
    }
    if (split_fields(cursor, end, &fs) != 0 || field_u32(&fs, "status", 0, &rule.status) != 0 ||
        field_u32(&fs, "needs", 0, &rule.needs) != 0 || field_u32(&fs, "delay", 0, &rule.delay_ms) != 0 ||
        field_u32(&fs, "times", 0, &rule.times) != 0) {
        set_error(error, error_size, "bad reply options for ", code_word);
        return -1;
    }
    if (s->rule_count >= ZSIM_MAX_RULES) {
        set_error(error, error_size, "too many reply rules at ", code_word);
        return -1;
    }
    s->rules[s->rule_count++] = rule;
    return 0;
}

int zsim_parse_line(zsim_scenario* s, const char* line, size_t length, char* error, size_t error_size) {
    const char* cursor = line;
    const char* end = line + length;
    text_ref directive;
    int quoted;
    fields fs;
    /* Large: kept off the stack (a kernel's is small). One parser at a time. */
    static wide_text a, b, c;

    if (!next_word(&cursor, end, &directive, &quoted) || directive.p[0] == '#') return 0;

    if (equals(directive, "reply")) return parse_reply(s, &cursor, end, error, error_size);

    if (equals(directive, "open-error")) {
        text_ref v;
        if (!next_word(&cursor, end, &v, &quoted) || parse_u32(v, &s->open_error) != 0) {
            set_error(error, error_size, "open-error needs a number", directive);
            return -1;
        }
        return 0;
    }
    if (equals(directive, "shared")) {
        s->shared = 1;
        return 0;
    }
    if (equals(directive, "count")) {
        text_ref name, v;
        zsim_list* l;
        if (!next_word(&cursor, end, &name, &quoted) || (l = list_named(s, name)) == NULL ||
            !next_word(&cursor, end, &v, &quoted) || parse_u32(v, &l->claimed) != 0) {
            set_error(error, error_size, "count needs a list and a number: ", directive);
            return -1;
        }
        l->count_claimed = 1;
        return 0;
    }

    if (split_fields(&cursor, end, &fs) != 0) {
        set_error(error, error_size, "expected key=value pairs after ", directive);
        return -1;
    }

    if (equals(directive, "policy")) {
        uint32_t builtin;
        if (field_u32(&fs, "builtin", 0, &builtin) != 0) {
            set_error(error, error_size, "bad builtin= in ", directive);
            return -1;
        }
        memset(s->policy_info, 0, sizeof s->policy_info);
        put_u32(s->policy_info, builtin);
        field_text(&fs, "name", &a);
        put_text(s->policy_info + 4, 127, &a);
        field_text(&fs, "version", &a);
        put_text(s->policy_info + 260, 127, &a);
        field_text(&fs, "id", &a);
        put_text(s->policy_info + 516, 255, &a);
        return 0;
    }
    if (equals(directive, "policy-error")) {
        uint32_t code;
        if (field_u32(&fs, "code", 0, &code) != 0) {
            set_error(error, error_size, "bad code= in ", directive);
            return -1;
        }
        memset(s->policy_error, 0, sizeof s->policy_error);
        put_u32(s->policy_error, code);
        field_text(&fs, "text", &a);
        put_text(s->policy_error + 4, 255, &a);
        return 0;
    }
    if (equals(directive, "pset")) {
        uint32_t pid;
        int32_t name_length, pset_length;
        uint8_t* p;
        field_text(&fs, "name", &a);
        field_text(&fs, "pset", &b);
        if (field_u32(&fs, "pid", 0, &pid) != 0 || field_length(&fs, "namelen", &a, &name_length) != 0 ||
            field_length(&fs, "psetlen", &b, &pset_length) != 0) {
            set_error(error, error_size, "bad number in ", directive);
            return -1;
        }
        s->pset.last_entry = s->pset.length;
        if ((p = list_append(&s->pset, ZSIM_PSET_RECORD_BYTES)) == NULL) {
            set_error(error, error_size, "too many records: ", directive);
            return -1;
        }
        s->pset.has_entry = 1;
        put_u32(p, pid);
        put_u32(p + 4, (uint32_t)name_length);
        put_text(p + 8, 256, &a);
        put_u32(p + 520, (uint32_t)pset_length);
        put_text(p + 524, 66, &b);
        put_u32(p + 652, 0); /* children so far */
        s->pset.count++;
        return 0;
    }
    if (equals(directive, "child")) {
        int32_t name_length, pset_length;
        uint8_t* p;
        uint8_t* entry;
        field_text(&fs, "name", &a);
        field_text(&fs, "pset", &b);
        if (!s->pset.has_entry) {
            set_error(error, error_size, "a child needs a pset entry before it: ", directive);
            return -1;
        }
        if (field_length(&fs, "namelen", &a, &name_length) != 0 || field_length(&fs, "psetlen", &b, &pset_length) != 0) {
            set_error(error, error_size, "bad number in ", directive);
            return -1;
        }
        if ((p = list_append(&s->pset, ZSIM_PSET_CHILD_BYTES)) == NULL) {
            set_error(error, error_size, "too many records: ", directive);
            return -1;
        }
        put_u32(p, (uint32_t)name_length);
        put_text(p + 4, 256, &a);
        put_u32(p + 516, (uint32_t)pset_length);
        put_text(p + 520, 64, &b);
        entry = s->pset.bytes + s->pset.last_entry;
        put_u32(entry + 652, get_u32(entry + 652) + 1);
        return 0;
    }
    if (equals(directive, "process")) {
        uint32_t terminated, ppid, pid;
        int32_t parent_length, name_length, pset_length;
        uint8_t* p;
        field_text(&fs, "parent", &a);
        field_text(&fs, "name", &b);
        field_text(&fs, "pset", &c);
        if (field_u32(&fs, "terminated", 0, &terminated) != 0 || field_u32(&fs, "ppid", 0, &ppid) != 0 ||
            field_u32(&fs, "pid", 0, &pid) != 0 || field_length(&fs, "parentlen", &a, &parent_length) != 0 ||
            field_length(&fs, "namelen", &b, &name_length) != 0 || field_length(&fs, "psetlen", &c, &pset_length) != 0) {
            set_error(error, error_size, "bad number in ", directive);
            return -1;
        }
        if ((p = list_append(&s->process, ZSIM_PROCESS_RECORD_BYTES)) == NULL) {
            set_error(error, error_size, "too many records: ", directive);
            return -1;
        }
        put_u32(p, terminated);
        put_u32(p + 4, ppid);
        put_u32(p + 8, pid);
        put_u32(p + 12, (uint32_t)parent_length);
        put_text(p + 16, 256, &a);
        put_u32(p + 528, (uint32_t)name_length);
        put_text(p + 532, 256, &b);
        put_u32(p + 1044, (uint32_t)pset_length);
        put_text(p + 1048, 66, &c);
        s->process.count++;
        return 0;
    }
    if (equals(directive, "whitelist")) {
        uint32_t type;
        uint64_t time;
        uint8_t* p;
        field_text(&fs, "path", &a);
        if (field_u32(&fs, "type", 0, &type) != 0 || field_u64(&fs, "time", &time) != 0) {
            set_error(error, error_size, "bad number in ", directive);
            return -1;
        }
        if ((p = list_append(&s->whitelist, ZSIM_WHITELIST_RECORD_BYTES)) == NULL) {
            set_error(error, error_size, "too many records: ", directive);
            return -1;
        }
        put_u32(p, type);
        put_u32(p + 8, (uint32_t)time);
        put_u32(p + 12, (uint32_t)(time >> 32));
        put_text(p + 16, 1023, &a);
        s->whitelist.count++;
        return 0;
    }
    set_error(error, error_size, "unknown directive: ", directive);
    return -1;
}

int zsim_parse_text(zsim_scenario* s, const char* text, size_t length, char* error, size_t error_size) {
    size_t start = 0;
    int number = 0;
    while (start < length) {
        size_t end = start;
        while (end < length && text[end] != '\n') ++end;
        ++number;
        if (zsim_parse_line(s, text + start, end - start, error, error_size) != 0) return number;
        start = end + 1;
    }
    return 0;
}

void zsim_init(zsim_scenario* s) { memset(s, 0, sizeof *s); }

uint32_t zsim_open_status(const zsim_scenario* s, uint32_t others_open) {
    if (s->open_error != 0) return s->open_error;
    if (!s->shared && others_open > 0) return ZSIM_ERROR_SHARING_VIOLATION;
    return 0;
}

/* ---- answers ------------------------------------------------------------- */

static zsim_rule* choose_rule(zsim_scenario* s, uint32_t code) {
    zsim_rule* last = NULL;
    uint32_t i;
    for (i = 0; i < s->rule_count; ++i) {
        zsim_rule* r = &s->rules[i];
        if (!r->any_code && r->code != code) continue;
        last = r;
        if (r->times == 0 || r->used < r->times) return r;
    }
    return last;
}

/* A list answer: header, then the records, when the capacity allows. */
static void list_answer(zsim_scenario* s, const zsim_list* l, uint32_t header, uint32_t record_bytes, uint32_t needs,
                        uint32_t capacity, zsim_answer* answer) {
    uint64_t required = (uint64_t)header + l->length;
    uint64_t wanted = (uint64_t)header + (uint64_t)needs * record_bytes;
    if (wanted > required) required = wanted;
    if (capacity < required) {
        answer->status = ZSIM_ERROR_MORE_DATA;
        return;
    }
    memset(s->reply, 0, header);
    put_u32(s->reply, l->count_claimed ? l->claimed : l->count);
    memcpy(s->reply + header, l->bytes, l->length);
    answer->output = s->reply;
    answer->output_length = header + l->length;
}

static void fixed_answer(zsim_scenario* s, const uint8_t* record, uint32_t size, uint32_t capacity,
                         zsim_answer* answer) {
    if (capacity < size) {
        answer->status = ZSIM_ERROR_INSUFFICIENT_BUFFER;
        return;
    }
    memcpy(s->reply, record, size);
    answer->output = s->reply;
    answer->output_length = size;
}

void zsim_answer_request(zsim_scenario* s, uint32_t code, const uint8_t* input, uint32_t input_length,
                         uint32_t output_capacity, zsim_answer* answer) {
    zsim_rule* rule = choose_rule(s, code);
    uint32_t needs = 0;
    memset(answer, 0, sizeof *answer);
    answer->how = ZSIM_IMMEDIATE;
    if (rule != NULL) {
        rule->used++;
        answer->how = rule->how;
        answer->status = rule->status;
        answer->delay_ms = rule->delay_ms;
        needs = rule->needs;
    }
    if (answer->status != 0) return;

    switch (code) {
    case ZSIM_CODE_QUERY_POLICY:
        fixed_answer(s, s->policy_info, ZSIM_POLICY_INFO_BYTES, output_capacity, answer);
        break;
    case ZSIM_CODE_POLICY_ERROR:
        fixed_answer(s, s->policy_error, ZSIM_POLICY_ERROR_BYTES, output_capacity, answer);
        break;
    case ZSIM_CODE_PSET_SNAPSHOT:
        list_answer(s, &s->pset, 4, ZSIM_PSET_RECORD_BYTES, needs, output_capacity, answer);
        break;
    case ZSIM_CODE_PROCESS_DUMP:
        list_answer(s, &s->process, 4, ZSIM_PROCESS_RECORD_BYTES, needs, output_capacity, answer);
        break;
    case ZSIM_CODE_LOCAL_WHITELIST:
        list_answer(s, &s->whitelist, 8, ZSIM_WHITELIST_RECORD_BYTES, needs, output_capacity, answer);
        break;
    case ZSIM_CODE_USE_BUILTIN:
        /* Only a request that will complete changes the driver's state. */
        if (input_length >= 4 && (answer->how == ZSIM_IMMEDIATE || answer->how == ZSIM_PENDING)) {
            put_u32(s->policy_info, get_u32(input));
        }
        break;
    default:
        break;
    }
}

/* ---- the record of requests ---------------------------------------------- */

typedef struct writer {
    char* out;
    size_t size;
    size_t n;
} writer;

static void put_char(writer* w, char c) {
    if (w->n + 1 < w->size) w->out[w->n++] = c;
}

static void put_string(writer* w, const char* text) {
    while (*text) put_char(w, *text++);
}

static void put_decimal(writer* w, uint32_t v) {
    char digits[10];
    int n = 0;
    do {
        digits[n++] = (char)('0' + v % 10);
        v /= 10;
    } while (v != 0);
    while (n > 0) put_char(w, digits[--n]);
}

static void put_hex(writer* w, uint32_t v, int digits) {
    static const char kHex[] = "0123456789ABCDEF";
    int i;
    for (i = digits - 1; i >= 0; --i) put_char(w, kHex[(v >> (4 * i)) & 0xF]);
}

size_t zsim_describe_request(uint32_t code, const uint8_t* input, uint32_t input_length, uint32_t output_capacity,
                             char* out, size_t out_size) {
    writer w;
    const char* name = zsim_code_name(code);
    uint32_t i;
    w.out = out;
    w.size = out_size;
    w.n = 0;
    if (out_size == 0) return 0;
    put_string(&w, "request ");
    put_string(&w, name != NULL ? name : "unknown");
    put_string(&w, " code=0x");
    put_hex(&w, code, 8);
    put_string(&w, " in=");
    put_decimal(&w, input_length);
    put_string(&w, " out=");
    put_decimal(&w, output_capacity);
    if (input_length > 0 && input != NULL) {
        put_string(&w, " data=");
        for (i = 0; i < input_length; ++i) put_hex(&w, input[i], 2);
    }
    out[w.n] = '\0';
    return w.n;
}
