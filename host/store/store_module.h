#pragma once

namespace kelm::host {
class IStore;
}

/// The contract of a library with the store of one scheme, loaded when the scheme is first used.
///
/// The library is called `kelm-files-<scheme>.so` and exports one C function of the name
/// `kelm_make_store` and the type `kelm_make_store_function`. Both sides are linked with the same
/// shared library `yx`; so the library is loaded with its symbols local to it (RTLD_NOW,
/// RTLD_LOCAL) and stays loaded until the process ends, since the store's client may have threads.
extern "C" {

/// The number of this contract. It changes when an interface that is handed over does.
inline constexpr int kelm_store_contract = 2;

/// Makes the store for the URIs of a scheme, in lower case. The caller owns the one reference to it
/// (`yx::P<IStore>::adopt`). Connects to nothing. Null if the library knows the contract or the
/// scheme not, or memory runs out; never throws.
using kelm_make_store_function = kelm::host::IStore* (*)(int contract, char const* scheme);
}
