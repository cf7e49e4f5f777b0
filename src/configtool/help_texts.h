// The tool's usage page and the detailed help pages of every option, as
// static tables of wide text.
#pragma once

#include <cstddef>

namespace HelpTexts {

constexpr size_t kPageLines = 7;
using Page = const char16_t* const[kPageLines];

extern const char16_t* const kUsageHeading[];
extern const size_t kUsageHeadingCount;
extern const char16_t* const kUsageServer[];
extern const size_t kUsageServerCount;
extern const char16_t* const kUsageCommands[];
extern const size_t kUsageCommandsCount;
extern const char16_t* const kUsageHelpHint[];
extern const size_t kUsageHelpHintCount;
extern const char16_t* const kUsageServerExamples[];
extern const size_t kUsageServerExamplesCount;
extern const char16_t* const kUsageExamples[];
extern const size_t kUsageExamplesCount;

// Pages indexed by option index; each table ends with a row whose lines are
// all "END_DETAIL_MESSAGE".
extern const Page kServerPages[];
extern const Page kCommandPages[];

extern const char16_t* const kTerminator;

}  // namespace HelpTexts
