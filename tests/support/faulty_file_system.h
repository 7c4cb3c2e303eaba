#pragma once

#include <memory>
#include <string>

#include "tests/support/hooked_file_system.h"
#include "yx/error.h"

namespace test_support {

/// A failure to come.
struct Fault {
    enum class Effect {
        /// The operation does not happen.
        Refuse,

        /// A write leaves the first half of its bytes behind, then fails; others as `Refuse`.
        Tear,

        /// The operation happens, and then reports failure.
        Lie,

        /// A read finds the end of the file at half of its bytes: `readLax` returns less, `read` is
        /// `UnexpectedEnd` in the words of a real stream; others as `Refuse`.
        EndEarly,
    };

    /// Which operations count.
    FileOperationKinds kinds;

    /// Which of them fails, counted from 1 since the fault was added.
    int nth = 1;

    /// Whether all later ones fail, too.
    bool sticky = false;

    /// The code of the `CIOError` "Injected failure." with "uri".
    yx::CIOError::Code code = yx::CIOError::IOFailure;

    /// The file that is hit, by the last component of its URI; empty for any.
    std::string file = {};

    Effect effect = Effect::Refuse;
};

/// Wraps a file system whose operations fail where a test says.
///
///     auto const files = yx::makeObject<FaultyFileSystem>(memory.get());
///     files->add({.kinds = {FileOperation::Kind::Write}, .nth = 3, .sticky = true,
///                 .code = yx::CIOError::NoSpace});
///
/// To fail each step of some work once: run it without faults, take `count`, and run it again for
/// each `nth` up to that.
class FaultyFileSystem : public HookedFileSystem {
public:
    explicit FaultyFileSystem(yx::IFileSystem* fileSystem);

    void add(Fault const& fault);

    /// Ends all faults.
    void clear();

    /// How many operations faults have hit since the last `clear`.
    int hits() const;

    /// How many operations of these kinds there were at all, failed ones included.
    int count(FileOperationKinds const& kinds) const;

private:
    struct State;

    FaultyFileSystem(yx::IFileSystem* fileSystem, std::shared_ptr<State> state);

    std::shared_ptr<State> m_state;
};

} // namespace test_support
