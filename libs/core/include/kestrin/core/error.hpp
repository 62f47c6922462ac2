#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <variant>

namespace kestrin::core {

/// A failure as the user and the log see it: the domain that raised it ("VideoScanService",
/// "Decode", "FFmpeg", "POSIX", ...), a code that is unique within that domain, and a text fit for
/// an alert. Errors that come from FFmpeg or the operating system keep their own code and text.
struct Error
{
    std::string domain;
    std::int64_t code = 0;
    std::string description;

    friend bool operator==(const Error&, const Error&) = default;
};

/// Either a value of type T or the Error that kept it from being made. Operations that can fail
/// return this instead of throwing; the caller tests it before taking the value.
template <typename T>
class Expected
{
public:
    // Implicit on purpose: `return value;` and `return error;` both read naturally.
    Expected(T value)  // NOLINT(google-explicit-constructor)
        : state_(std::in_place_index<0>, std::move(value))
    {}
    Expected(Error error)  // NOLINT(google-explicit-constructor)
        : state_(std::in_place_index<1>, std::move(error))
    {}

    [[nodiscard]] bool hasValue() const { return state_.index() == 0; }
    explicit operator bool() const { return hasValue(); }

    /// The value; only when hasValue().
    [[nodiscard]] T& value() & { return std::get<0>(state_); }
    [[nodiscard]] const T& value() const& { return std::get<0>(state_); }
    [[nodiscard]] T&& value() && { return std::get<0>(std::move(state_)); }
    T& operator*() & { return value(); }
    const T& operator*() const& { return value(); }
    T* operator->() { return &value(); }
    const T* operator->() const { return &value(); }

    /// The error; only when !hasValue().
    [[nodiscard]] const Error& error() const { return std::get<1>(state_); }

private:
    std::variant<T, Error> state_;
};

/// The outcome of an operation that has no value to give back: success, or an Error.
class Status
{
public:
    Status() = default;
    Status(Error error)  // NOLINT(google-explicit-constructor)
        : error_(std::move(error))
        , failed_(true)
    {}

    [[nodiscard]] bool ok() const { return !failed_; }
    explicit operator bool() const { return ok(); }
    /// The error; only when !ok().
    [[nodiscard]] const Error& error() const { return error_; }

private:
    Error error_;
    bool failed_ = false;
};

}  // namespace kestrin::core
