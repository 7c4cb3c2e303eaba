#include "integrations/cephfs/file_system_module.h"

#include <exception>
#include <string_view>

#include "integrations/cephfs/ceph_file_system.h"

extern "C" __attribute__((visibility("default"))) yx::IFileSystem* kelm_make_file_system(
    int contract, char const* scheme) noexcept {
    if (contract != kelm_file_system_contract || !scheme || std::string_view(scheme) != "ceph")
        return nullptr;
    try {
        return new (yx::CBase::RawNew{}) kelm::ceph::CCephFileSystem();
    } catch (std::exception const&) {
        return nullptr;
    }
}
