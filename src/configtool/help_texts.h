// The tool's usage page, as static tables of wide text, and the form of an
// option's detailed help page (each option's row holds its own, options.cpp).
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

}  // namespace HelpTexts
