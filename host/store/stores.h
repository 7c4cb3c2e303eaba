#pragma once

#include <string>

#include "host/store/store.h"
#include "host/store/store_upload.h"

namespace kelm::host {

/// The store of a URI's scheme, null for a scheme that has none. `file` is the operating system's;
/// any other is that of `addStore`, or of the library `kelm-files-<scheme>.so`, which is loaded now
/// and stays. The store lives until the process ends, unless it was added.
///
/// The library is looked for in the folders of the environment variable KELM_STORES, separated by
/// colons, unless the process has rights that its user has not; then in the folder `kelm` beside
/// the shared library `yx`. Loading connects to nothing.
IStore* findStore(yx::CURI const& uri);

/// The same, but a scheme without a store is `yx::CIOError` `NotSupported` with "uri" and the words
/// "There is no store for '<scheme>:' here.", behind which the reason stands where a library was
/// found and could not be loaded.
IStore& storeOf(yx::CURI const& uri);

/// By what the store of a URI takes whole files; null for one that takes them as any other file
/// system does, and for a URI without a store.
IStoreUpload* findUpload(yx::CURI const& uri);

/// Whether a name that a user has given is a URI of a store other than the operating system's: it
/// begins with a scheme and ":/", and the scheme is `ceph`, `s3` or `https`, installed or not, or
/// another one that has a store here. A file of the operating system of such a name is reached by
/// "./" before it.
bool isStoreURI(std::string const& argument);

/// A store that is found by its scheme as long as this lives, before any library. For hosts with a
/// store of their own, and for tests.
class AddedStore {
public:
    /// `scheme` is in lower case, and is not "file".
    AddedStore(std::string scheme, yx::P<IStore> store);
    AddedStore(AddedStore const&) = delete;
    AddedStore& operator=(AddedStore const&) = delete;
    ~AddedStore();

private:
    std::string m_scheme;
};

} // namespace kelm::host
