// Replacing a file without ever truncating it in place:
//   1. remove "<file>.1"
//   2. write the new text to "<file>.2" (committed to disk), a file this
//      step creates exclusively once whatever stood at that name, a link
//      included, has been removed; a failed write removes it again
//   3. rename "<file>" to "<file>.1"
//   4. rename "<file>.2" to "<file>"
// At every moment either the file or its previous version (".1") with the
// new one (".2") is on disk. Step 3 fails when the file does not exist yet:
// a file is only ever replaced, never created, this way.
#pragma once

#include "foundation/string.h"

// When a replace was interrupted between steps 3 and 4 (the process was
// killed, the machine lost power), the file is missing while its new version
// ".2" is complete on disk: this finishes the replace by renaming ".2" to the
// file. With no ".2", the previous version ".1" is put back. Without ".1"
// nothing is done: a ".2" alone is a write stopped before its renames, which
// may be incomplete (a process killed while it wrote). True when the file was restored. Call it only while
// holding the lock that writers hold for the whole replace.
bool completeInterruptedReplace(const STRING& target);

// Throws IDSException code 256, operation "WriteToFile12", when a remove or
// rename fails; the error number of the create ("Cannot create file : ")
// when "<file>.2" cannot be created; and the write errors of
// Utils::appendProperties. errno holds the failure's error number.
void writeToFile12(const STRING& target, const STRING& text, bool utf16);
