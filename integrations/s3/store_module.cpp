#include "host/store/store_module.h"

#include <exception>
#include <string_view>

#include "integrations/s3/bucket_store.h"

extern "C" __attribute__((visibility("default"))) kelm::host::IStore* kelm_make_store(
    int contract, char const* scheme) noexcept {
    if (contract != kelm_store_contract || !scheme)
        return nullptr;
    std::string_view const name = scheme;
    if (name != "s3" && name != "https")
        return nullptr;
    try {
        return new (yx::CBase::RawNew{}) kelm::s3::CBucketStore();
    } catch (std::exception const&) {
        return nullptr;
    }
}
