#include "tests/support/faulty_file_system.h"

#include <map>
#include <vector>

namespace test_support {

namespace {

using Kind = FileOperation::Kind;

[[noreturn]] void fail(Fault const& fault, FileOperation const& operation) {
    throw yx::CIOError(fault.code, "Injected failure.",
                       yx::CProps().add("uri", operation.uri.toString(true)), nullptr);
}

void hit(Fault const& fault, FileOperation& operation, HookedFileSystem::Proceed const& proceed) {
    switch (fault.effect) {
    case Fault::Effect::Refuse:
        fail(fault, operation);
    case Fault::Effect::Tear:
        if (operation.kind == Kind::Write) {
            operation.length /= 2;
            proceed();
        }
        fail(fault, operation);
    case Fault::Effect::Lie:
        proceed();
        fail(fault, operation);
    case Fault::Effect::EndEarly:
        if (operation.kind != Kind::Read)
            fail(fault, operation);
        operation.length /= 2;
        proceed();
    }
}

} // namespace

struct FaultyFileSystem::State {
    struct Pending {
        Fault fault;
        int seen = 0;
    };

    std::vector<Pending> faults;
    std::map<Kind, int> counts;
    int hits = 0;

    /// Counts the operation for all faults; the first one that it hits, or null.
    Fault const* count(FileOperation const& operation) {
        ++counts[operation.kind];
        Fault const* found = nullptr;
        for (Pending& pending : faults) {
            Fault const& fault = pending.fault;
            if (!fault.kinds.contains(operation.kind) ||
                (!fault.file.empty() && fault.file != operation.file()))
                continue;
            ++pending.seen;
            if (!found && (pending.seen == fault.nth || (fault.sticky && pending.seen > fault.nth)))
                found = &fault;
        }
        hits += found ? 1 : 0;
        return found;
    }
};

FaultyFileSystem::FaultyFileSystem(yx::IFileSystem* fileSystem)
    : FaultyFileSystem(fileSystem, std::make_shared<State>()) {}

FaultyFileSystem::FaultyFileSystem(yx::IFileSystem* fileSystem, std::shared_ptr<State> state)
    : HookedFileSystem(fileSystem,
                       [state](FileOperation& operation, Proceed const& proceed) {
                           if (Fault const* const found = state->count(operation)) {
                               Fault const fault = *found;
                               hit(fault, operation, proceed);
                           } else {
                               proceed();
                           }
                       }),
      m_state(std::move(state)) {}

void FaultyFileSystem::add(Fault const& fault) {
    m_state->faults.push_back({fault});
}

void FaultyFileSystem::clear() {
    m_state->faults.clear();
    m_state->hits = 0;
}

int FaultyFileSystem::hits() const {
    return m_state->hits;
}

int FaultyFileSystem::count(FileOperationKinds const& kinds) const {
    int count = 0;
    for (Kind const kind : kinds)
        count += m_state->counts[kind];
    return count;
}

} // namespace test_support
