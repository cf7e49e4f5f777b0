// The exception of the foundation and the file layer: a numeric code (often
// the errno or Win32 error of the failed call), the name of the operation
// that failed, and a message.
#pragma once

#include <exception>
#include <string>

#include "foundation/string.h"

class IDSException : public std::exception {
public:
    IDSException(int code, STRING operation, STRING message, const char* file = nullptr, int line = 0);

    int code() const { return code_; }
    const STRING& operation() const { return operation_; }
    const STRING& message() const { return message_; }
    const char* file() const { return file_; }
    int line() const { return line_; }

    // "<operation> : <message> (<code>)", followed by " in file <f> at line <n>"
    // when the source position is known.
    STRING toString() const;
    const char* what() const noexcept override { return what_.c_str(); }

private:
    int code_;
    STRING operation_;
    STRING message_;
    const char* file_;
    int line_;
    std::string what_;
};

// Failures of the helper classes (files, directories, tokenising).
class UtilsException : public IDSException {
public:
    using IDSException::IDSException;
};

// Out-of-range access to an Array or ByteArray.
class IndexOutOfRange : public IDSException {
public:
    IndexOutOfRange()
        : IDSException(-1, u"Array::operator[]",
                       u"T Array::operator[](int) const - Index greater than Array length.") {}
};

#define IDS_THROW(code, op, msg) throw IDSException((code), (op), (msg), __FILE__, __LINE__)
