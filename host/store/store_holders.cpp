#include "host/store/store_holders.h"

#include "host/store/stores.h"
#include "host/store/watched_store.h"
#include "yx/error.h"

namespace kelm::host {

namespace {

/// A store, as one that knows holders; null if it is none.
struct HoldersOfStore {
    IStore* store = nullptr;
    IStoreHolders* holders = nullptr;
};

HoldersOfStore lookForHolders(yx::CURI const& uri) {
    IStore* const found = findStore(uri);
    auto* const watched = dynamic_cast<WatchedStore*>(found);
    IStore* const store = watched ? &watched->getStore() : found;
    return {store, dynamic_cast<IStoreHolders*>(store)};
}

} // namespace

bool knowsHolders(yx::CURI const& uri) {
    return lookForHolders(uri).holders != nullptr;
}

std::vector<StoreHolder> findHolders(std::vector<yx::CURI> const& files) {
    if (files.empty())
        return {};
    HoldersOfStore const found = lookForHolders(files.front());
    if (!found.holders)
        return {};
    return callStore(*found.store, files.front(),
                     [&] { return found.holders->findHolders(files); });
}

void shutOutHolder(yx::CURI const& uri, std::string const& number) {
    HoldersOfStore const found = lookForHolders(uri);
    if (!found.holders) {
        throw yx::CIOError(yx::CIOError::NotSupported, "The store shuts nobody out.",
                           yx::CProps().add("uri", uri.toString(true)), nullptr);
    }
    callStore(*found.store, uri, [&] { found.holders->shutOut(uri, number); });
}

} // namespace kelm::host
