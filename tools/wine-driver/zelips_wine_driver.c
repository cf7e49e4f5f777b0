/* A test prevention driver for Wine: a real Windows kernel driver that
 * creates "\Device\ZELIPS" with the link "\DosDevices\ZELIPS" and answers
 * the tool's control requests the way the driver simulator does. Its
 * behaviour is the simulator's own (tools/driver-sim/scenario.c, built into
 * this driver); only the transport differs: real IRPs from CreateFileW and
 * DeviceIoControl, pending requests completed later by a worker thread, and
 * a cancel routine for CancelIo.
 *
 * Settings, under the service key's Parameters subkey, read on every open:
 *   Scenario  REG_MULTI_SZ (one directive a string) or REG_SZ (one directive
 *             a line): the scenario, in the simulator's language. It is
 *             applied afresh whenever its text changes; while it stays the
 *             same, the state it built (reply rules used up, the built-in
 *             flag) carries over from one open to the next.
 *   Record    REG_SZ: the file (a drive-letter or NT path) the driver appends
 *             its record to, one event a line, as the simulator writes its log:
 *               open 0 | open-refused N | request NAME code=0x... in=N out=N
 *               [data=HEX] | complete NAME status=N | cancel NAME | close
 *             and "scenario-error LINE: TEXT" when the scenario does not
 *             parse (every open is then refused with error 13).
 *
 * Refused opens. Wine's CreateFileW does not wait for the driver's answer
 * to the open: the handle is opened whatever the driver answers. So besides
 * failing the open, the driver fails every request on a refused handle at
 * once with the open's error (on Windows those requests never come).
 *
 * Dispositions of the scenario on this transport:
 *   immediate        the request completes within DeviceIoControl
 *   pending          marked pending, completed by the worker after delay=
 *   pending-forever, silent, abandoned, wait-failed
 *                    marked pending and never completed: only a cancel (or
 *                    the handle's cleanup, or unloading) ends the request.
 *                    (A real device cannot make a wait abandoned or failed.)
 * A Win32 error N of the scenario completes the request with
 * STATUS_BUFFER_OVERFLOW for 234 (more data) and the NTSTATUS 0xC007xxxx
 * that carries N otherwise, which Windows (and Wine) map back to N.
 */
#include <ntddk.h>

#include "scenario.h"

/* Declared by ntifs.h, which a device driver does not include. */
NTSYSAPI NTSTATUS NTAPI ZwWaitForSingleObject(HANDLE handle, BOOLEAN alertable, PLARGE_INTEGER timeout);

#define ZDRV_TAG 0x7370695Au /* 'Zips' */
#define ZDRV_MAX_PATH 1024

static const WCHAR kDeviceName[] = L"\\Device\\ZELIPS";
static const WCHAR kLinkName[] = L"\\DosDevices\\ZELIPS";

typedef VOID(NTAPI* query_time_fn)(PLARGE_INTEGER);

/* One pending request. */
typedef struct pending_request {
    LIST_ENTRY link;
    PIRP irp;
    PFILE_OBJECT file;
    ULONG code;
    ULONG win32_status;  /* the scenario's final status */
    NTSTATUS status;     /* the same as NTSTATUS */
    ULONG_PTR information;
    BOOLEAN timed;       /* completes at `due` */
    ULONGLONG due;       /* system time, 100 ns */
    BOOLEAN cancelled;   /* complete with STATUS_CANCELLED */
} pending_request;

/* FILE_OBJECT.FsContext of an accepted opener; FsContext2 of a refused one
 * holds its Win32 error. */
static char g_accepted_marker;

static PDEVICE_OBJECT g_device;
static BOOLEAN g_link_created;
static zsim_scenario* g_scenario;

/* Locks, PASSIVE_LEVEL only: synchronization events, signalled while free.
 * (Wine's KMUTEX never hands a released mutex over to a thread that waits
 * for it, so a contended one deadlocks.)
 * g_state_lock: scenario and openers; taken before g_record_lock.
 * g_record_lock: the record path and the writes to the record. */
static KEVENT g_state_lock;
static KEVENT g_record_lock;
static ULONG g_openers;
static BOOLEAN g_scenario_loaded;
static BOOLEAN g_scenario_bad;
static ULONGLONG g_scenario_hash;
static WCHAR g_parameters_key[512];
static WCHAR g_record_path[ZDRV_MAX_PATH + 8];

/* The pending requests; the cancel routine takes this lock too. */
static KSPIN_LOCK g_pending_lock;
static LIST_ENTRY g_pending;
static KEVENT g_wake;
static volatile LONG g_stopping;
static HANDLE g_worker;
static query_time_fn g_query_time;

/* ---- small helpers --------------------------------------------------------- */

static void lock_state(void) { KeWaitForSingleObject(&g_state_lock, Executive, KernelMode, FALSE, NULL); }

static void unlock_state(void) { KeSetEvent(&g_state_lock, IO_NO_INCREMENT, FALSE); }

static void lock_record(void) { KeWaitForSingleObject(&g_record_lock, Executive, KernelMode, FALSE, NULL); }

static void unlock_record(void) { KeSetEvent(&g_record_lock, IO_NO_INCREMENT, FALSE); }

/* The system time, through the exported routine DriverEntry looks up rather
 * than the x64 headers' direct read of the kernel's shared data page (which
 * a driver under Wine reaches only through Wine's instruction emulation). */
static ULONGLONG now_100ns(void) {
    LARGE_INTEGER t;
    if (g_query_time != NULL) {
        g_query_time(&t);
        return (ULONGLONG)t.QuadPart;
    }
    return *(volatile ULONGLONG*)SharedSystemTime;
}

static NTSTATUS status_of(ULONG win32) {
    if (win32 == 0) return STATUS_SUCCESS;
    if (win32 == ZSIM_ERROR_MORE_DATA) return STATUS_BUFFER_OVERFLOW;
    return (NTSTATUS)(0xC0070000u | (win32 & 0xFFFFu));
}

typedef struct line_buffer {
    char text[160];
    size_t n;
} line_buffer;

static void put_text(line_buffer* b, const char* s) {
    while (*s != '\0' && b->n + 1 < sizeof b->text) b->text[b->n++] = *s++;
    b->text[b->n] = '\0';
}

static void put_number(line_buffer* b, ULONG v) {
    char digits[12];
    int n = 0;
    do {
        digits[n++] = (char)('0' + v % 10);
        v /= 10;
    } while (v != 0);
    while (n > 0 && b->n + 1 < sizeof b->text) b->text[b->n++] = digits[--n];
    b->text[b->n] = '\0';
}

static void put_code_name(line_buffer* b, ULONG code) {
    static const char kHex[] = "0123456789ABCDEF";
    const char* name = zsim_code_name(code);
    int i;
    if (name != NULL) {
        put_text(b, name);
        return;
    }
    put_text(b, "0x");
    for (i = 7; i >= 0 && b->n + 1 < sizeof b->text; --i) b->text[b->n++] = kHex[(code >> (4 * i)) & 0xF];
    b->text[b->n] = '\0';
}

/* ---- the record ---------------------------------------------------------------- */

/* Appends one line to the record file, when there is one. PASSIVE_LEVEL. */
static void record(const char* text, size_t length) {
    UNICODE_STRING path;
    OBJECT_ATTRIBUTES attributes;
    IO_STATUS_BLOCK io;
    LARGE_INTEGER at_end;
    HANDLE file;
    NTSTATUS status;
    char* line;

    lock_record();
    if (g_record_path[0] == L'\0') {
        unlock_record();
        return;
    }
    line = (char*)ExAllocatePoolWithTag(PagedPool, length + 1, ZDRV_TAG);
    if (line == NULL) {
        unlock_record();
        return;
    }
    RtlCopyMemory(line, text, length);
    line[length] = '\n';
    RtlInitUnicodeString(&path, g_record_path);
    InitializeObjectAttributes(&attributes, &path, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, NULL, NULL);
    status = ZwCreateFile(&file, FILE_APPEND_DATA | SYNCHRONIZE, &attributes, &io, NULL, FILE_ATTRIBUTE_NORMAL,
                          FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, FILE_OPEN_IF,
                          FILE_SYNCHRONOUS_IO_NONALERT | FILE_NON_DIRECTORY_FILE, NULL, 0);
    if (NT_SUCCESS(status)) {
        at_end.LowPart = FILE_WRITE_TO_END_OF_FILE;
        at_end.HighPart = -1;
        ZwWriteFile(file, NULL, NULL, NULL, &io, line, (ULONG)(length + 1), &at_end, NULL);
        ZwClose(file);
    } else {
        DbgPrint("zelips: cannot write the record (0x%08lx)\n", (unsigned long)status);
    }
    unlock_record();
    ExFreePoolWithTag(line, ZDRV_TAG);
}

static void record_line(const line_buffer* b) { record(b->text, b->n); }

/* ---- settings ----------------------------------------------------------------- */

/* A value of the Parameters key, allocated; NULL when it is absent. */
static PKEY_VALUE_PARTIAL_INFORMATION query_value(HANDLE key, const WCHAR* name) {
    UNICODE_STRING value_name;
    ULONG size = 0;
    PKEY_VALUE_PARTIAL_INFORMATION info;
    NTSTATUS status;
    int attempt;

    RtlInitUnicodeString(&value_name, name);
    for (attempt = 0; attempt < 4; ++attempt) {
        status = ZwQueryValueKey(key, &value_name, KeyValuePartialInformation, NULL, 0, &size);
        if (status != STATUS_BUFFER_TOO_SMALL && status != STATUS_BUFFER_OVERFLOW) return NULL;
        info = (PKEY_VALUE_PARTIAL_INFORMATION)ExAllocatePoolWithTag(PagedPool, size + 2 * sizeof(WCHAR), ZDRV_TAG);
        if (info == NULL) return NULL;
        status = ZwQueryValueKey(key, &value_name, KeyValuePartialInformation, info, size, &size);
        if (NT_SUCCESS(status)) return info;
        ExFreePoolWithTag(info, ZDRV_TAG);
        if (status != STATUS_BUFFER_TOO_SMALL && status != STATUS_BUFFER_OVERFLOW) return NULL;
    }
    return NULL;
}

/* The record path: "\??\" before a drive-letter path, an NT path as it is. */
static void apply_record_path(PKEY_VALUE_PARTIAL_INFORMATION info) {
    const WCHAR* text;
    ULONG chars, i, n = 0;
    g_record_path[0] = L'\0';
    if (info == NULL || (info->Type != REG_SZ && info->Type != REG_EXPAND_SZ)) return;
    text = (const WCHAR*)info->Data;
    chars = info->DataLength / sizeof(WCHAR);
    while (chars > 0 && text[chars - 1] == L'\0') --chars;
    if (chars == 0 || chars > ZDRV_MAX_PATH) return;
    if (text[0] != L'\\') {
        g_record_path[n++] = L'\\';
        g_record_path[n++] = L'?';
        g_record_path[n++] = L'?';
        g_record_path[n++] = L'\\';
    }
    for (i = 0; i < chars; ++i) g_record_path[n++] = text[i];
    g_record_path[n] = L'\0';
}

/* UTF-16 text to UTF-8, a NUL between strings becoming a line end (a
 * REG_MULTI_SZ is one directive a string). Returns the length written. */
static size_t to_utf8(const WCHAR* text, size_t chars, char* out) {
    size_t i, n = 0;
    for (i = 0; i < chars; ++i) {
        ULONG c = text[i];
        if (c >= 0xD800 && c < 0xDC00 && i + 1 < chars && text[i + 1] >= 0xDC00 && text[i + 1] < 0xE000) {
            c = 0x10000 + ((c - 0xD800) << 10) + (text[i + 1] - 0xDC00u);
            ++i;
        } else if (c >= 0xD800 && c < 0xE000) {
            c = 0xFFFD;
        }
        if (c == 0) {
            out[n++] = '\n';
        } else if (c < 0x80) {
            out[n++] = (char)c;
        } else if (c < 0x800) {
            out[n++] = (char)(0xC0 | (c >> 6));
            out[n++] = (char)(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            out[n++] = (char)(0xE0 | (c >> 12));
            out[n++] = (char)(0x80 | ((c >> 6) & 0x3F));
            out[n++] = (char)(0x80 | (c & 0x3F));
        } else {
            out[n++] = (char)(0xF0 | (c >> 18));
            out[n++] = (char)(0x80 | ((c >> 12) & 0x3F));
            out[n++] = (char)(0x80 | ((c >> 6) & 0x3F));
            out[n++] = (char)(0x80 | (c & 0x3F));
        }
    }
    return n;
}

static ULONGLONG hash_of(ULONG type, const UCHAR* bytes, ULONG length) {
    ULONGLONG h = 0xCBF29CE484222325ull ^ type;
    ULONG i;
    for (i = 0; i < length; ++i) h = (h ^ bytes[i]) * 0x100000001B3ull;
    return h;
}

/* Applies the scenario value when its text differs from the one in force. */
static void apply_scenario(PKEY_VALUE_PARTIAL_INFORMATION info) {
    const UCHAR* bytes = info != NULL ? info->Data : NULL;
    ULONG length = info != NULL ? info->DataLength : 0;
    ULONG type = info != NULL ? info->Type : REG_NONE;
    const ULONGLONG hash = hash_of(type, bytes, length);
    size_t chars;
    char* text;
    size_t text_bytes;
    char error[200];
    int bad;

    if (g_scenario_loaded && hash == g_scenario_hash) return;
    g_scenario_loaded = TRUE;
    g_scenario_hash = hash;
    g_scenario_bad = FALSE;
    zsim_init(g_scenario);
    if (info == NULL) return;
    if (type != REG_SZ && type != REG_MULTI_SZ && type != REG_EXPAND_SZ) {
        static const char kMessage[] = "scenario-error 0: the value is not text";
        g_scenario_bad = TRUE;
        record(kMessage, sizeof kMessage - 1);
        return;
    }
    chars = length / sizeof(WCHAR);
    if (type != REG_MULTI_SZ) {
        size_t end = 0;
        while (end < chars && ((const WCHAR*)bytes)[end] != L'\0') ++end;
        chars = end;
    }
    text = (char*)ExAllocatePoolWithTag(PagedPool, chars * 3 + 1, ZDRV_TAG);
    if (text == NULL) {
        static const char kMessage[] = "scenario-error 0: no memory for the scenario";
        g_scenario_bad = TRUE;
        record(kMessage, sizeof kMessage - 1);
        return;
    }
    text_bytes = to_utf8((const WCHAR*)bytes, chars, text);
    error[0] = '\0';
    bad = zsim_parse_text(g_scenario, text, text_bytes, error, sizeof error);
    ExFreePoolWithTag(text, ZDRV_TAG);
    if (bad != 0) {
        line_buffer b;
        b.n = 0;
        b.text[0] = '\0';
        put_text(&b, "scenario-error ");
        put_number(&b, (ULONG)bad);
        put_text(&b, ": ");
        put_text(&b, error);
        g_scenario_bad = TRUE;
        zsim_init(g_scenario);
        record_line(&b);
    }
}

/* Reads Record and Scenario. Called with the state lock held. */
static void load_settings(void) {
    UNICODE_STRING key_name;
    OBJECT_ATTRIBUTES attributes;
    HANDLE key;
    PKEY_VALUE_PARTIAL_INFORMATION value;

    RtlInitUnicodeString(&key_name, g_parameters_key);
    InitializeObjectAttributes(&attributes, &key_name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, NULL, NULL);
    if (!NT_SUCCESS(ZwOpenKey(&key, KEY_READ, &attributes))) {
        lock_record();
        g_record_path[0] = L'\0';
        unlock_record();
        apply_scenario(NULL);
        return;
    }
    value = query_value(key, L"Record");
    lock_record();
    apply_record_path(value);
    unlock_record();
    if (value != NULL) ExFreePoolWithTag(value, ZDRV_TAG);
    value = query_value(key, L"Scenario");
    apply_scenario(value);
    if (value != NULL) ExFreePoolWithTag(value, ZDRV_TAG);
    ZwClose(key);
}

/* ---- pending requests ------------------------------------------------------------ */

static VOID NTAPI cancel_routine(PDEVICE_OBJECT device, PIRP irp) {
    KIRQL irql;
    PLIST_ENTRY e;
    (void)device;
    IoReleaseCancelSpinLock(irp->CancelIrql);
    KeAcquireSpinLock(&g_pending_lock, &irql);
    for (e = g_pending.Flink; e != &g_pending; e = e->Flink) {
        pending_request* r = CONTAINING_RECORD(e, pending_request, link);
        if (r->irp == irp) r->cancelled = TRUE;
    }
    KeReleaseSpinLock(&g_pending_lock, irql);
    /* The worker completes it. */
    KeSetEvent(&g_wake, IO_NO_INCREMENT, FALSE);
}

/* Marks the request pending and hands it to the worker. */
static NTSTATUS pend(PIRP irp, PFILE_OBJECT file, ULONG code, const zsim_answer* answer, ULONG_PTR information) {
    KIRQL irql;
    pending_request* r = (pending_request*)ExAllocatePoolWithTag(NonPagedPool, sizeof *r, ZDRV_TAG);
    if (r == NULL) {
        irp->IoStatus.Status = STATUS_INSUFFICIENT_RESOURCES;
        irp->IoStatus.Information = 0;
        IoCompleteRequest(irp, IO_NO_INCREMENT);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlZeroMemory(r, sizeof *r);
    r->irp = irp;
    r->file = file;
    r->code = code;
    r->win32_status = answer->status;
    r->status = status_of(answer->status);
    r->information = NT_ERROR(r->status) ? 0 : information;
    if (answer->how == ZSIM_PENDING) {
        r->timed = TRUE;
        r->due = now_100ns() + (ULONGLONG)answer->delay_ms * 10000u;
    }
    IoMarkIrpPending(irp);
    KeAcquireSpinLock(&g_pending_lock, &irql);
    InsertTailList(&g_pending, &r->link);
    IoSetCancelRoutine(irp, cancel_routine);
    if (irp->Cancel && IoSetCancelRoutine(irp, NULL) != NULL) {
        /* Cancelled before the routine was in place: ours to cancel. */
        r->cancelled = TRUE;
    }
    KeReleaseSpinLock(&g_pending_lock, irql);
    KeSetEvent(&g_wake, IO_NO_INCREMENT, FALSE);
    return STATUS_PENDING;
}

/* Cancels the pending requests of one opener (its handle is going away). */
static void cancel_requests_of(PFILE_OBJECT file) {
    KIRQL irql;
    PLIST_ENTRY e;
    KeAcquireSpinLock(&g_pending_lock, &irql);
    for (e = g_pending.Flink; e != &g_pending; e = e->Flink) {
        pending_request* r = CONTAINING_RECORD(e, pending_request, link);
        /* Without the cancel routine in place it is running: it marks the request. */
        if (r->file == file && !r->cancelled && IoSetCancelRoutine(r->irp, NULL) != NULL) r->cancelled = TRUE;
    }
    KeReleaseSpinLock(&g_pending_lock, irql);
    KeSetEvent(&g_wake, IO_NO_INCREMENT, FALSE);
}

/* Completes due and cancelled requests, then sleeps until the next is due. */
static VOID NTAPI worker(PVOID context) {
    (void)context;
    for (;;) {
        LIST_ENTRY done;
        KIRQL irql;
        PLIST_ENTRY e, next;
        ULONGLONG now = now_100ns();
        ULONGLONG next_due = 0;
        BOOLEAN stopping = g_stopping != 0;
        BOOLEAN empty;

        InitializeListHead(&done);
        KeAcquireSpinLock(&g_pending_lock, &irql);
        for (e = g_pending.Flink; e != &g_pending; e = next) {
            pending_request* r = CONTAINING_RECORD(e, pending_request, link);
            next = e->Flink;
            if (!r->cancelled && (stopping || (r->timed && r->due <= now))) {
                /* Ours only when the cancel routine has not been taken. */
                if (IoSetCancelRoutine(r->irp, NULL) == NULL) continue;
                if (stopping) r->cancelled = TRUE;
            } else if (!r->cancelled) {
                if (r->timed && (next_due == 0 || r->due < next_due)) next_due = r->due;
                continue;
            }
            RemoveEntryList(e);
            InsertTailList(&done, e);
        }
        empty = IsListEmpty(&g_pending);
        KeReleaseSpinLock(&g_pending_lock, irql);

        while (!IsListEmpty(&done)) {
            pending_request* r = CONTAINING_RECORD(RemoveHeadList(&done), pending_request, link);
            line_buffer b;
            b.n = 0;
            b.text[0] = '\0';
            if (r->cancelled) {
                put_text(&b, "cancel ");
                put_code_name(&b, r->code);
                r->irp->IoStatus.Status = STATUS_CANCELLED;
                r->irp->IoStatus.Information = 0;
            } else {
                put_text(&b, "complete ");
                put_code_name(&b, r->code);
                put_text(&b, " status=");
                put_number(&b, r->win32_status);
                r->irp->IoStatus.Status = r->status;
                r->irp->IoStatus.Information = r->information;
            }
            /* Recorded before the requester can see the outcome. */
            record_line(&b);
            IoCompleteRequest(r->irp, IO_NO_INCREMENT);
            ExFreePoolWithTag(r, ZDRV_TAG);
        }

        if (stopping && empty) break;
        if (next_due != 0) {
            LARGE_INTEGER timeout;
            now = now_100ns();
            timeout.QuadPart = next_due > now ? -(LONGLONG)(next_due - now) : -1;
            KeWaitForSingleObject(&g_wake, Executive, KernelMode, FALSE, &timeout);
        } else if (!stopping) {
            KeWaitForSingleObject(&g_wake, Executive, KernelMode, FALSE, NULL);
        } else {
            /* Waiting for cancel routines that are running. */
            LARGE_INTEGER pause;
            pause.QuadPart = -10000; /* 1 ms */
            KeWaitForSingleObject(&g_wake, Executive, KernelMode, FALSE, &pause);
        }
    }
    PsTerminateSystemThread(STATUS_SUCCESS);
}

/* ---- dispatch --------------------------------------------------------------------- */

static NTSTATUS complete(PIRP irp, NTSTATUS status, ULONG_PTR information) {
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

static NTSTATUS NTAPI dispatch_create(PDEVICE_OBJECT device, PIRP irp) {
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    ULONG open_status;
    line_buffer b;
    (void)device;
    b.n = 0;
    b.text[0] = '\0';
    lock_state();
    load_settings();
    open_status = g_scenario_bad ? 13u : zsim_open_status(g_scenario, g_openers);
    if (open_status == 0) {
        ++g_openers;
        stack->FileObject->FsContext = &g_accepted_marker;
        put_text(&b, "open 0");
    } else {
        stack->FileObject->FsContext2 = (PVOID)(ULONG_PTR)open_status;
        put_text(&b, "open-refused ");
        put_number(&b, open_status);
    }
    record_line(&b);
    unlock_state();
    return complete(irp, status_of(open_status), 0);
}

static NTSTATUS NTAPI dispatch_cleanup(PDEVICE_OBJECT device, PIRP irp) {
    (void)device;
    cancel_requests_of(IoGetCurrentIrpStackLocation(irp)->FileObject);
    return complete(irp, STATUS_SUCCESS, 0);
}

static NTSTATUS NTAPI dispatch_close(PDEVICE_OBJECT device, PIRP irp) {
    PFILE_OBJECT file = IoGetCurrentIrpStackLocation(irp)->FileObject;
    (void)device;
    /* Wine closes without a cleanup request first. */
    cancel_requests_of(file);
    lock_state();
    if (file->FsContext == &g_accepted_marker) {
        static const char kClose[] = "close";
        file->FsContext = NULL;
        if (g_openers > 0) --g_openers;
        record(kClose, sizeof kClose - 1);
    }
    unlock_state();
    return complete(irp, STATUS_SUCCESS, 0);
}

static NTSTATUS NTAPI dispatch_control(PDEVICE_OBJECT device, PIRP irp) {
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    const ULONG code = stack->Parameters.DeviceIoControl.IoControlCode;
    const ULONG method = code & 3u;
    ULONG in_length = stack->Parameters.DeviceIoControl.InputBufferLength;
    const ULONG out_length = stack->Parameters.DeviceIoControl.OutputBufferLength;
    const UCHAR* input = NULL;
    UCHAR* output = NULL;
    ULONG_PTR information = 0;
    zsim_answer answer;
    char* line;
    size_t line_size;
    (void)device;

    if (stack->FileObject->FsContext != &g_accepted_marker) {
        const ULONG refusal = (ULONG)(ULONG_PTR)stack->FileObject->FsContext2;
        return complete(irp, status_of(refusal != 0 ? refusal : 6u), 0);
    }
    if (method != METHOD_NEITHER) {
        input = (const UCHAR*)irp->AssociatedIrp.SystemBuffer;
        if (method == METHOD_BUFFERED) {
            output = (UCHAR*)irp->AssociatedIrp.SystemBuffer;
        } else if (irp->MdlAddress != NULL) {
            output = (UCHAR*)MmGetSystemAddressForMdlSafe(irp->MdlAddress, NormalPagePriority);
        }
    }
    if (input == NULL) in_length = 0;

    lock_state();
    line_size = 96 + 2 * (size_t)in_length;
    line = (char*)ExAllocatePoolWithTag(PagedPool, line_size, ZDRV_TAG);
    if (line != NULL) {
        size_t n = zsim_describe_request(code, input, in_length, out_length, line, line_size);
        record(line, n);
        ExFreePoolWithTag(line, ZDRV_TAG);
    }
    zsim_answer_request(g_scenario, code, input, in_length, out_length, &answer);
    if (answer.status == 0 && answer.output_length > 0 && output != NULL) {
        information = answer.output_length <= out_length ? answer.output_length : out_length;
        RtlCopyMemory(output, answer.output, information);
    }
    unlock_state();

    if (answer.how == ZSIM_IMMEDIATE) {
        const NTSTATUS status = status_of(answer.status);
        return complete(irp, status, NT_ERROR(status) ? 0 : information);
    }
    return pend(irp, stack->FileObject, code, &answer, information);
}

static NTSTATUS NTAPI dispatch_other(PDEVICE_OBJECT device, PIRP irp) {
    (void)device;
    return complete(irp, STATUS_INVALID_DEVICE_REQUEST, 0);
}

/* ---- loading and unloading ----------------------------------------------------------- */

static VOID NTAPI driver_unload(PDRIVER_OBJECT driver) {
    UNICODE_STRING link;
    (void)driver;
    if (g_worker != NULL) {
        InterlockedExchange(&g_stopping, 1);
        KeSetEvent(&g_wake, IO_NO_INCREMENT, FALSE);
        ZwWaitForSingleObject(g_worker, FALSE, NULL);
        ZwClose(g_worker);
        g_worker = NULL;
    }
    if (g_link_created) {
        RtlInitUnicodeString(&link, kLinkName);
        IoDeleteSymbolicLink(&link);
        g_link_created = FALSE;
    }
    if (g_device != NULL) {
        IoDeleteDevice(g_device);
        g_device = NULL;
    }
    if (g_scenario != NULL) {
        ExFreePoolWithTag(g_scenario, ZDRV_TAG);
        g_scenario = NULL;
    }
}

/* "<service key>\Parameters" */
static BOOLEAN set_parameters_key(PUNICODE_STRING registry_path) {
    static const WCHAR kSuffix[] = L"\\Parameters";
    const size_t chars = registry_path->Length / sizeof(WCHAR);
    const size_t suffix = sizeof kSuffix / sizeof(WCHAR); /* with its NUL */
    size_t i;
    if (chars + suffix > sizeof g_parameters_key / sizeof(WCHAR)) return FALSE;
    for (i = 0; i < chars; ++i) g_parameters_key[i] = registry_path->Buffer[i];
    for (i = 0; i < suffix; ++i) g_parameters_key[chars + i] = kSuffix[i];
    return TRUE;
}

NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registry_path);

NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registry_path) {
    UNICODE_STRING name, link, routine;
    NTSTATUS status;
    ULONG i;

    if (!set_parameters_key(registry_path)) return STATUS_NAME_TOO_LONG;
    RtlInitUnicodeString(&routine, L"KeQuerySystemTime");
    g_query_time = (query_time_fn)MmGetSystemRoutineAddress(&routine);

    KeInitializeEvent(&g_state_lock, SynchronizationEvent, TRUE);
    KeInitializeEvent(&g_record_lock, SynchronizationEvent, TRUE);
    KeInitializeSpinLock(&g_pending_lock);
    InitializeListHead(&g_pending);
    KeInitializeEvent(&g_wake, SynchronizationEvent, FALSE);
    g_stopping = 0;
    g_openers = 0;
    g_scenario_loaded = FALSE;
    g_scenario_bad = FALSE;
    g_record_path[0] = L'\0';

    g_scenario = (zsim_scenario*)ExAllocatePoolWithTag(NonPagedPool, sizeof *g_scenario, ZDRV_TAG);
    if (g_scenario == NULL) return STATUS_INSUFFICIENT_RESOURCES;
    zsim_init(g_scenario);

    for (i = 0; i <= IRP_MJ_MAXIMUM_FUNCTION; ++i) driver->MajorFunction[i] = dispatch_other;
    driver->MajorFunction[IRP_MJ_CREATE] = dispatch_create;
    driver->MajorFunction[IRP_MJ_CLEANUP] = dispatch_cleanup;
    driver->MajorFunction[IRP_MJ_CLOSE] = dispatch_close;
    driver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = dispatch_control;
    driver->DriverUnload = driver_unload;

    RtlInitUnicodeString(&name, kDeviceName);
    status = IoCreateDevice(driver, 0, &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &g_device);
    if (!NT_SUCCESS(status)) {
        g_device = NULL;
        driver_unload(driver);
        return status;
    }
    RtlInitUnicodeString(&link, kLinkName);
    status = IoCreateSymbolicLink(&link, &name);
    if (!NT_SUCCESS(status)) {
        driver_unload(driver);
        return status;
    }
    g_link_created = TRUE;

    status = PsCreateSystemThread(&g_worker, THREAD_ALL_ACCESS, NULL, NULL, NULL, worker, NULL);
    if (!NT_SUCCESS(status)) {
        g_worker = NULL;
        driver_unload(driver);
        return status;
    }
    return STATUS_SUCCESS;
}
