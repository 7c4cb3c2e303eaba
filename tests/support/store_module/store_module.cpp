/// The library of a store for tests of programs: `test:` is the folder that the environment variable
/// KELM_TEST_STORE names. Where KELM_TEST_HOLDERS names a file too, the store knows who holds files,
/// see `HoldingStore`.

#include "host/store/store_module.h"

#include <cstdlib>
#include <string_view>

#include "tests/support/holding_store.h"

extern "C" __attribute__((visibility("default"))) kelm::host::IStore* kelm_make_store(
    int contract, char const* scheme) noexcept {
    char const* const folder = std::getenv("KELM_TEST_STORE");
    if (contract != kelm_store_contract || std::string_view(scheme) != "test" || !folder)
        return nullptr;
    char const* const holders = std::getenv("KELM_TEST_HOLDERS");
    test_support::FolderStore* const store =
        holders ? new (yx::CBase::RawNew{}) test_support::HoldingStore(folder, holders)
                : new (yx::CBase::RawNew{}) test_support::FolderStore(folder);
    store->keepToOneProcess();
    return store;
}
