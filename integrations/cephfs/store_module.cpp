#include "host/store/store_module.h"

#include <exception>
#include <string_view>

#include "integrations/cephfs/ceph_file_system.h"

extern "C" __attribute__((visibility("default"))) kelm::host::IStore* kelm_make_store(
    int contract, char const* scheme) noexcept {
    if (contract != kelm_store_contract || !scheme || std::string_view(scheme) != "ceph")
        return nullptr;
    try {
        return new (yx::CBase::RawNew{}) kelm::ceph::CCephFileSystem();
    } catch (std::exception const&) {
        return nullptr;
    }
}
