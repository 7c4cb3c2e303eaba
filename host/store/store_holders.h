#pragma once

#include <optional>
#include <string>
#include <vector>

#include "yx/uri.h"

namespace kelm::host {

/// A file that a client of a store has something of.
struct HeldFile {
    yx::CURI uri; ///< as it was asked for

    /// Whether the client has it open, so that it may have locked it.
    bool isOpen = false;

    /// Whether the client has it open for writing.
    bool isOpenForWriting = false;

    /// Whether the client may know something of it that the store does not, such as bytes that were
    /// not flushed, so that others wait for the client.
    bool mayHaveChanges = false;
};

/// A client of a store that has files of it, as the store tells. What it does not tell is empty.
struct StoreHolder {
    /// What is known on this machine of the process that the client is in.
    enum class Life {
        Unknown,   ///< it is another machine's
        LivesHere, ///< it runs, or stands still, on this machine
        DiedHere,  ///< it ran on this machine and has ended
    };

    std::string number;  ///< by which the store knows it
    std::string host;    ///< the name of its machine
    std::string user;    ///< of the store
    std::string process; ///< its number on that machine

    /// For how long the client has been one.
    std::optional<__int64> connectedSeconds = std::nullopt;

    /// Whether the store has waited in vain for a sign of life.
    bool isMissed = false;

    Life life = Life::Unknown;   ///< of its process
    std::vector<HeldFile> files; ///< those that were asked for, of which it has something
};

/// A store that knows which clients have a file, on whatever machine, and can shut a client out. A
/// host asks an `IStore` for it by `dynamic_cast`, or by `knowsHolders`.
class IStoreHolders {
public:
    virtual ~IStoreHolders() = default;

    /// Who has some of the files, but for the clients of this object; each client once, in no
    /// order. Does not wait for any of them. A user who may not know is `yx::CIOError`
    /// `AccessDenied` with "uri", in words that name a way; other errors are those of the store.
    virtual std::vector<StoreHolder> findHolders(std::vector<yx::CURI> const& files) = 0;

    /// Ends all that a client has in the store of a URI, for good: its locks are free, what it did
    /// not flush is gone, and whatever it does from then on fails. Returns when that is so.
    ///
    /// A client of this object is `NotAllowed`; a number that no client has passes. Other errors are
    /// those of `findHolders`.
    virtual void shutOut(yx::CURI const& uri, std::string const& number) = 0;

protected:
    IStoreHolders() = default;
    IStoreHolders(IStoreHolders const&) = default;
    IStoreHolders& operator=(IStoreHolders const&) = default;
};

/// Whether the store of a URI knows who holds a file (`IStoreHolders`).
bool knowsHolders(yx::CURI const& uri);

/// `IStoreHolders::findHolders` of the store that all of the files are in, noted in `StoreCalls`. One
/// that does not know, or no file, has nobody.
std::vector<StoreHolder> findHolders(std::vector<yx::CURI> const& files);

/// `IStoreHolders::shutOut`, noted in `StoreCalls`. A store that cannot is `yx::CIOError`
/// `NotSupported` "The store shuts nobody out." with "uri".
void shutOutHolder(yx::CURI const& uri, std::string const& number);

} // namespace kelm::host
