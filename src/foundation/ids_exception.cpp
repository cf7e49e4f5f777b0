#include "foundation/ids_exception.h"

IDSException::IDSException(int code, STRING operation, STRING message, const char* file, int line)
    : code_(code), operation_(std::move(operation)), message_(std::move(message)), file_(file), line_(line) {
    what_ = toString().toUtf8();
}

STRING IDSException::toString() const {
    STRING text = operation_ + u" : " + message_ + u" (" + STRING::number(code_) + u")";
    if (file_ != nullptr) {
        text += u" in file ";
        text += STRING::fromUtf8(file_);
        text += u" at line ";
        text += STRING::number(line_);
    }
    return text;
}
