// Exceptions that end a verb; main prints the line and returns the status.
#pragma once

#include <stdexcept>
#include <string>
#include <system_error>

#include "RtString.h"

/// An error message for the user: lower case, without line end and program name.
class Failure : public std::runtime_error {
public:
    explicit Failure(const std::string& text, int status = 1)
        : std::runtime_error(text), m_status(status) {}
    int Status() const { return m_status; }

private:
    int m_status; // of the process
};

/// A stop signal arrived.
class Interrupted {};

/// The text of an errno value. Unlike std::strerror, thread-safe.
inline std::string ErrorText(int error) { return std::generic_category().message(error); }

inline std::string Quoted(const std::string& text) { return "'" + text + "'"; }

inline std::string ToString(const CRtString& text) { return std::string(text.view()); }
