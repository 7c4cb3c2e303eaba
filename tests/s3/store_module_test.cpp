#include "host/store/store_module.h"

#include <filesystem>

#include <dlfcn.h>
#include <gtest/gtest.h>

#include "host/store/store_upload.h"
#include "host/store/stores.h"

namespace s3_test {
namespace {

/// Loaded as programs do it.
kelm_make_store_function* load(std::filesystem::path const& path) {
    void* const library = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!library)
        ADD_FAILURE() << ::dlerror();
    static kelm_make_store_function function = nullptr;
    function = library
                   ? reinterpret_cast<kelm_make_store_function>(::dlsym(library, "kelm_make_store"))
                   : nullptr;
    return function ? &function : nullptr;
}

TEST(StoreModule, HasTwoNamesAndTwoSchemes) {
    std::filesystem::path const path = KELM_S3_MODULE;
    for (char const* const name : {"kelm-files-s3.so", "kelm-files-https.so"}) {
        kelm_make_store_function* const make = load(path.parent_path() / name);
        ASSERT_TRUE(make) << name;
        for (char const* const scheme : {"s3", "https"}) {
            yx::P<kelm::host::IStore> const store =
                yx::P<kelm::host::IStore>::adopt((*make)(kelm_store_contract, scheme));
            ASSERT_TRUE(store) << scheme;
            EXPECT_TRUE(dynamic_cast<kelm::host::IStoreUpload*>(store.get()));
            EXPECT_THROW(store->makeFolder(yx::CURI("s3://disks/a")), yx::CIOError);
        }
    }
}

TEST(StoreModule, KnowsNoOtherSchemeOrContract) {
    kelm_make_store_function* const make = load(KELM_S3_MODULE);
    ASSERT_TRUE(make);
    for (char const* const scheme : {"http", "ceph", "file", "", "S3"})
        EXPECT_FALSE((*make)(kelm_store_contract, scheme)) << scheme;
    EXPECT_FALSE((*make)(kelm_store_contract, nullptr));
    EXPECT_FALSE((*make)(kelm_store_contract + 1, "s3"));
}

TEST(StoreModule, IsFoundBesideTheLibraries) {
    for (char const* const uri : {"s3://disks/a.vmdk", "https://host.example/a.vmdk"}) {
        kelm::host::IStore* const store = kelm::host::findStore(yx::CURI(uri));
        ASSERT_TRUE(store) << uri;
        EXPECT_EQ(store->resolveName(yx::CURI(uri)), yx::CURI(uri));
    }
}

} // namespace
} // namespace s3_test
