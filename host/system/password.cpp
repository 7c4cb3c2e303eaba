#include "host/system/password.h"

#include <cassert>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include "host/system/file_descriptor.h"
#include "yx/buffer.h"
#include "yx/error.h"

namespace kelm::host {

namespace {

constexpr int kMaxPasswordBytes = 4096;

/// The longest line end, CR LF.
constexpr int kLineEndBytes = 2;
constexpr char kTerminalPath[] = "/dev/tty";

/// Turns a terminal's echo off for as long as it lives.
class EchoOff {
public:
    explicit EchoOff(int terminal) : m_terminal(terminal) {
        if (tcgetattr(terminal, &m_before) != 0)
            throwSystemError("Cannot ask for the password", kTerminalPath);
        termios silent = m_before;
        silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        if (tcsetattr(terminal, TCSAFLUSH, &silent) != 0)
            throwSystemError("Cannot ask for the password", kTerminalPath);
    }
    EchoOff(EchoOff const&) = delete;
    EchoOff& operator=(EchoOff const&) = delete;
    ~EchoOff() { tcsetattr(m_terminal, TCSAFLUSH, &m_before); }

private:
    int m_terminal;
    termios m_before{};
};

[[noreturn]] void throwTooLong() {
    throw yx::CIOError(yx::CIOError::NotSupported, "The password is too long.", yx::CProps(),
                       nullptr);
}

/// Reads to the end of the data or, with `oneLine`, to the end of the line.
Password readFrom(int fileDescriptor, std::string const& path, bool oneLine,
                  CancelFlag const& cancel) {
    yx::TCryptBuffer<unsigned char> bytes(kMaxPasswordBytes + kLineEndBytes + 1, 0);
    bool atEnd = false;
    while (!atEnd) {
        if (bytes.getUsed() > kMaxPasswordBytes + kLineEndBytes)
            throwTooLong();
        assert(bytes.getUsed() < bytes.getAllocated());
        unsigned char* const next = bytes.getData() + bytes.getUsed();
        waitUntilReady(fileDescriptor, POLLIN, &cancel);
        ssize_t const count = ::read(fileDescriptor, next, 1);
        if (count < 0 && (errno == EINTR || errno == EAGAIN))
            continue;
        if (count < 0)
            throwSystemError("Cannot read the password", path);
        atEnd = count == 0 || (oneLine && *next == '\n');
        if (count > 0)
            bytes.setUsed(bytes.getUsed() + 1);
    }
    int size = bytes.getUsed();
    if (size > 0 && bytes.getData()[size - 1] == '\n') {
        --size;
        if (size > 0 && bytes.getData()[size - 1] == '\r')
            --size;
    }
    if (size > kMaxPasswordBytes)
        throwTooLong();
    assert(size >= 0 && size <= bytes.getUsed());
    yx::String text = yx::String::fromUTF8(
        {reinterpret_cast<char const*>(bytes.getData()), static_cast<std::size_t>(size)});
    Password password(text);
    text.wipe();
    return password;
}

Password askOnce(int terminal, std::string const& prompt, CancelFlag const& cancel) {
    EchoOff const echoOff(terminal);
    std::string const text = prompt + ": ";
    if (::write(terminal, text.data(), text.size()) < 0)
        throwSystemError("Cannot ask for the password", kTerminalPath);
    Password password = readFrom(terminal, kTerminalPath, true, cancel);
    if (::write(terminal, "\n", 1) < 0)
        throwSystemError("Cannot ask for the password", kTerminalPath);
    return password;
}

} // namespace

Password& Password::operator=(Password const& other) {
    if (this != &other) {
        m_text.wipe();
        m_text = other.m_text;
    }
    return *this;
}

Password readPasswordFile(std::string const& path, CancelFlag const& cancel) {
    FileDescriptor const file = openForReading(path);
    if (!file.isOpen())
        throwSystemError("Cannot open the password file", path);
    return readFrom(file.get(), path, false, cancel);
}

Password readPasswordFileDescriptor(int fileDescriptor, CancelFlag const& cancel) {
    return readFrom(fileDescriptor, "/dev/fd/" + std::to_string(fileDescriptor), false, cancel);
}

Password readPasswordVariable(std::string const& name) {
    char const* const value = std::getenv(name.c_str());
    if (!value) {
        throw yx::CIOError(
            yx::CIOError::NotFound,
            yx::String::fromUTF8("The environment variable '" + name + "' is not set."),
            yx::CProps(), nullptr);
    }
    if (std::strlen(value) > kMaxPasswordBytes)
        throwTooLong();
    yx::String text = yx::String::fromUTF8(value);
    Password password(text);
    text.wipe();
    return password;
}

Password promptForPassword(std::string const& prompt, bool twice, CancelFlag const& cancel) {
    FileDescriptor const terminal =
        FileDescriptor::own(::open(kTerminalPath, O_RDWR | O_CLOEXEC | O_NOCTTY));
    if (!terminal.isOpen()) {
        throw yx::CIOError(yx::CIOError::NotSupported,
                           "There is no terminal to ask for the password on.", yx::CProps(),
                           nullptr);
    }
    Password password = askOnce(terminal.get(), prompt, cancel);
    if (twice && askOnce(terminal.get(), prompt + " again", cancel).get() != password.get()) {
        throw yx::CError("The two passwords differ.", "", -1, yx::CProps(), nullptr);
    }
    return password;
}

} // namespace kelm::host
