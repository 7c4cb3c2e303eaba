#pragma once

#include <exception>
#include <memory>

#include "yx/props.h"
#include "yx/string.h"

namespace yx {

/// The base of every framework error. Thrown by value. Copies share one record, so copying never
/// throws.
class YX_API CError : public std::exception {
public:
    /// `cause` may be null; a clone of it with its own type is kept.
    CError(String const& message, String const& detail, __int64 code, CProps const& props,
           CError const* cause);

    /// A copy shares the facts. So does a move, and leaves the error whole.
    CError(CError const&) noexcept;
    CError& operator=(CError const&) noexcept;
    ~CError() override;

    /// What happened, a sentence for people.
    String const& getMessage() const;

    /// Further detail, often empty.
    String const& getDetail() const;

    /// A number for programs; -1 where there is none.
    __int64 getCode() const;

    /// The facts of the situation, in the order in which they were added. The writable form first
    /// parts from other copies of this error.
    CProps& getParams();
    CProps const& getParams() const;

    /// The error behind this one, null if there is none. Lives as long as this error or a copy.
    CError const* getCause() const;

    /// The message in UTF-8, valid as long as the error.
    char const* what() const noexcept override;

    /// Does nothing; called first in a handler that only passes the error on.
    void nop() const {}

    /// A copy with the error's own type.
    virtual std::shared_ptr<CError const> clone() const;

private:
    struct Record;
    std::shared_ptr<Record const> m_record;
    std::shared_ptr<CProps> m_params;
};

/// A failure of a stream or of the format of a file.
class YX_API CIOError : public CError {
public:
    /// What went wrong. The numbers are fixed.
    enum Code {
        IOFailure = 1,          ///< the device or the operating system reports a failure
        NotFound = 2,           ///< no such file
        NotAllowed = 3,         ///< outside what the object allows at this place
        UnexpectedEnd = 4,      ///< read past the end of the data
        CorruptData = 5,        ///< stored data is corrupt or not usable
        UnsupportedVersion = 6, ///< unsupported version of a format
        BadPosition = 7,        ///< bad seek position
        AlreadyExists = 8,      ///< a file is in the way
        AccessDenied = 9,       ///< the operating system or another lock holder refuses
        Closed = 10,            ///< the stream is closed
        NotAligned = 11,        ///< position not on a required boundary
        NoSpace = 12,           ///< the device is full
        NotSupported = 13,      ///< the stream does not support the operation
    };

    /// `cause` may be null.
    CIOError(Code code, String const& message, CProps const& props, CError const* cause);

    /// The code; `getCode()` is the same number.
    Code getIOCode() const { return m_ioCode; }

    std::shared_ptr<CError const> clone() const override;

private:
    Code m_ioCode;
};

/// A bad argument. Code -1.
class YX_API CInvalidArgError : public CError {
public:
    /// `function` names the function that refuses, such as "CVMDKGrain::seek".
    CInvalidArgError(String const& function, String const& message, CProps const& props);

    /// As for `CError`; without a move, which would leave an error without the name behind.
    CInvalidArgError(CInvalidArgError const&) noexcept = default;
    CInvalidArgError& operator=(CInvalidArgError const&) noexcept = default;

    /// The name given to the constructor.
    String const& getFunction() const { return *m_function; }

    std::shared_ptr<CError const> clone() const override;

private:
    std::shared_ptr<String const> m_function;
};

/// A file system that cannot do what was asked. Its message is that of its cause.
class YX_API CFileSystemError : public CError {
public:
    /// What the file system cannot do. The numbers are fixed.
    enum Problem {
        LockingNotSupported = 6, ///< lock a range of a file
    };

    /// The code is the problem's number; a clone of `cause` is kept.
    CFileSystemError(Problem problem, CError const& cause);

    /// The problem given to the constructor.
    Problem getProblem() const { return m_problem; }

    std::shared_ptr<CError const> clone() const override;

private:
    Problem m_problem;
};

/// A path that cannot be used: "Invalid path: " and the path. Code -1.
class YX_API CBadPathError : public CError {
public:
    /// `path` as it was given.
    explicit CBadPathError(String const& path);

    std::shared_ptr<CError const> clone() const override;
};

/// A lock file that cannot be had. Code -1, with "uri" of the lock file.
class YX_API CLockFileError : public CError {
public:
    /// `cause`, which may be null, is the file system's own error.
    CLockFileError(String const& message, CProps const& props, CError const* cause);

    std::shared_ptr<CError const> clone() const override;
};

} // namespace yx
