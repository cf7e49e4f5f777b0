#include "config/safe_replace.h"

#include <cerrno>
#include <cstdio>
#include <memory>

#include "foundation/file_util.h"
#include "foundation/ids_exception.h"
#include "foundation/utils.h"

#ifdef ZELIPS_TEST_HOOKS
#include <chrono>
#include <cstdlib>
#include <thread>
#endif

namespace {
// Test builds only: ZELIPS_TEST_REPLACE_DELAY_MS widens the moments between
// the steps of a replace, so that the reliability tests can stop a writer
// inside them.
void testPause() {
#ifdef ZELIPS_TEST_HOOKS
    if (const char* ms = std::getenv("ZELIPS_TEST_REPLACE_DELAY_MS")) {
        std::this_thread::sleep_for(std::chrono::milliseconds(std::atoi(ms)));
    }
#endif
}
}  // namespace

void writeToFile12(const STRING& target, const STRING& text, bool utf16) {
    const STRING previous = target + u".1";
    const STRING next = target + u".2";

    const int removed = removeFile(previous);
    if (removed != 0 && removed != ENOENT) {
        throw IDSException(256, u"WriteToFile12",
                           STRING(u"Cannot remove file : ") + previous + u" Error Code : " + STRING::number(removed));
    }

    // The new text goes to a file made here and now: whatever stands at
    // the ".2" name (an earlier write's leftover, or a link planted there to
    // have this write land elsewhere) is removed, and the file is created
    // exclusively, so that a link planted again in between fails the write
    // instead of being followed.
    const int stale = removeFile(next);
    if (stale != 0 && stale != ENOENT) {
        errno = stale;
        throw IDSException(256, u"WriteToFile12",
                           STRING(u"Cannot remove file : ") + next + u" Error Code : " + STRING::number(stale));
    }
    FILE* fp = openForWriting(next, WriteMode::CreateNew);
    if (fp == nullptr) {
        const int err = errno;
        throw IDSException(err, u"WriteToFile12", STRING(u"Cannot create file : ") + next + u" Error Code : " +
                                                      STRING::number(err));
    }
    try {
        std::unique_ptr<FILE, int (*)(FILE*)> guard(fp, &std::fclose);
        std::setvbuf(fp, nullptr, _IOFBF, 1024);
        Utils::appendProperties(fp, text, 0, utf16);
        if (std::fclose(guard.release()) != 0) {
            throw IDSException(errno, u"Utils::appendProperties", u"Could not write Unicode Data");
        }
    } catch (const IDSException& e) {
        // A write cut short (a full disk, a file size limit) leaves no part
        // of the new text behind; the caller sees the write's error number
        // in errno, not what closing and removing the file left there.
        const int err = e.code() > 0 ? e.code() : errno;
        removeFile(next);
        errno = err;
        throw;
    }

    testPause();
    int err = renameFile(target, previous);
    if (err != 0) {
        throw IDSException(256, u"WriteToFile12",
                           STRING(u"Cannot rename file : ") + target + u" to " + previous + u" Error Code : " +
                               STRING::number(err));
    }
    testPause();
    err = renameFile(next, target);
    if (err != 0) {
        throw IDSException(256, u"WriteToFile12",
                           STRING(u"Cannot rename file : ") + next + u" to " + target + u" Error Code : " +
                               STRING::number(err));
    }
    syncDirectory(Directory::parentOf(target));
}

bool completeInterruptedReplace(const STRING& target) {
    if (fileExists(target)) return false;
    // A replace killed between its two renames leaves ".1" (the previous
    // version, renamed away by step 3) beside ".2" (the new text, complete
    // and on disk before the renames began); the second rename is finished.
    // A ".2" without ".1" never reached its renames: step 1 removed ".1",
    // then the write of ".2" was cut short or failed, and ".2" may be
    // incomplete. A ".1" alone is no interrupted replace at all (the file
    // was removed from outside) and is older than what the backup holds:
    // the load reads the backup.
    if (!fileExists(target + u".1") || !fileExists(target + u".2")) return false;
    if (renameFile(target + u".2", target) != 0) return false;
    syncDirectory(Directory::parentOf(target));
    return true;
}
