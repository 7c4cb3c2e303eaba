#include "yx/error.h"

#include <cassert>
#include <string>

#include "yx/buffer.h"

namespace yx {

struct CError::Record {
    String message;
    std::string what;
    String detail;
    __int64 code;
    std::shared_ptr<CError const> cause;
};

CError::CError(String const& message, String const& detail, __int64 code, CProps const& props,
               CError const* cause)
    : m_record(std::make_shared<Record const>(
          Record{message, message.toStdString(), detail, code, cause ? cause->clone() : nullptr})),
      m_params(std::make_shared<CProps>(props)) {}

CError::CError(CError const&) noexcept = default;
CError& CError::operator=(CError const&) noexcept = default;
CError::~CError() = default;

String const& CError::getMessage() const {
    assert(m_record && "also a moved-from error is whole");
    return m_record->message;
}

String const& CError::getDetail() const {
    return m_record->detail;
}

__int64 CError::getCode() const {
    return m_record->code;
}

CProps& CError::getParams() {
    if (m_params.use_count() > 1)
        m_params = std::make_shared<CProps>(*m_params);
    assert(m_params.use_count() == 1);
    return *m_params;
}

CProps const& CError::getParams() const {
    return *m_params;
}

CError const* CError::getCause() const {
    return m_record->cause.get();
}

char const* CError::what() const noexcept {
    return m_record->what.c_str();
}

std::shared_ptr<CError const> CError::clone() const {
    return std::make_shared<CError>(*this);
}

CIOError::CIOError(Code code, String const& message, CProps const& props, CError const* cause)
    : CError(message, "", code, props, cause), m_ioCode(code) {}

std::shared_ptr<CError const> CIOError::clone() const {
    return std::make_shared<CIOError>(*this);
}

CInvalidArgError::CInvalidArgError(String const& function, String const& message,
                                   CProps const& props)
    : CError(message, "", -1, props, nullptr),
      m_function(std::make_shared<String const>(function)) {}

std::shared_ptr<CError const> CInvalidArgError::clone() const {
    return std::make_shared<CInvalidArgError>(*this);
}

CFileSystemError::CFileSystemError(Problem problem, CError const& cause)
    : CError(cause.getMessage(), "", static_cast<__int64>(problem), CProps(), &cause),
      m_problem(problem) {}

std::shared_ptr<CError const> CFileSystemError::clone() const {
    return std::make_shared<CFileSystemError>(*this);
}

CBadPathError::CBadPathError(String const& path)
    : CError("Invalid path: " + path, "", -1, CProps(), nullptr) {}

std::shared_ptr<CError const> CBadPathError::clone() const {
    return std::make_shared<CBadPathError>(*this);
}

CLockFileError::CLockFileError(String const& message, CProps const& props, CError const* cause)
    : CError(message, "", -1, props, cause) {}

std::shared_ptr<CError const> CLockFileError::clone() const {
    return std::make_shared<CLockFileError>(*this);
}

namespace detail {

void throwBadBufferSize(__int64 size) {
    throw CInvalidArgError("TBuffer", "Invalid buffer size: " + toString(size), CProps());
}

} // namespace detail

} // namespace yx
