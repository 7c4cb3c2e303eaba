#pragma once

#include "yx/file_system.h"

/// The contract of a library with the file system of one scheme, loaded when the scheme is first
/// used.
///
/// The library is called `kelm-files-<scheme>.so` and exports one C function of the name
/// `kelm_make_file_system` and the type `kelm_make_file_system_function`. Both sides are linked with
/// the same shared library `yx`; so the library is loaded with its symbols local to it (RTLD_NOW,
/// RTLD_LOCAL) and stays loaded until the process ends, since the file system's client may have
/// threads.
///
/// What a file system offers beyond `yx::IFileSystem` is asked for by `dynamic_cast`, of the object
/// that was made.
extern "C" {

/// The number of this contract. It changes when an interface that is handed over does.
inline constexpr int kelm_file_system_contract = 1;

/// Makes a file system for the URIs of a scheme, in lower case. The caller owns the one reference to
/// it (`yx::P<yx::IFileSystem>::adopt`). Connects to nothing. Null if the library knows the contract
/// or the scheme not, or memory runs out; never throws.
using kelm_make_file_system_function = yx::IFileSystem* (*)(int contract, char const* scheme);
}
