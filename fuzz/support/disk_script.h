#pragma once

namespace kelm::fuzz {

/// The password of every enciphered disk of the corpus.
constexpr char kPassword[] = "secret";

/// Bits of a script's first byte.
enum ScriptFlag : unsigned int {
    Write = 1,      ///< the disk is opened for writing
    NoPassword = 2, ///< with the empty password
    Model = 4,      ///< and compared with a model, if the checker finds it sound
};

/// What stands behind the first byte of a script: the number of an operation and its arguments, as
/// often as there is something. Positions take 3 bytes, lengths and grain indices 2, little-endian;
/// the content of writes is made of one byte.
enum class Operation {
    Read,             ///< position, length
    Write,            ///< position, length, content
    WriteZeros,       ///< position, length
    ReadPrepared,     ///< grain index
    WritePrepared,    ///< grain index, content
    WriteBadPrepared, ///< grain index, a byte for a length, so many bytes
    Flush,
    Reopen,
    AskWritten,      ///< grain index
    MakeIndependent, ///< grain index
    GatherSpaceInfo,
    Map,
    Check,
    ChangeParent, ///< a byte for a length, so many bytes of text
};

constexpr int kOperationCount = static_cast<int>(Operation::ChangeParent) + 1;

} // namespace kelm::fuzz
