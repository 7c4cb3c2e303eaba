// Open disks, and new ones.

#include "host/store/file_names.h"
#include "host/transfer/exact_size.h"
#include "integrations/python/bindings.h"
#include "integrations/python/new_disk.h"
#include "integrations/python/open_disk.h"
#include "integrations/python/work.h"

namespace kelm::python {

namespace {

namespace py = pybind11;
using namespace py::literals;
using Paths = std::vector<std::string>;

std::unique_ptr<OpenDisk> openDisk(std::string const& path, bool isWritable,
                                   py::object const& password, Paths const& allowPaths,
                                   bool unfinished) {
    return std::make_unique<OpenDisk>(path, isWritable,
                                      Access::make(password, allowPaths, unfinished));
}

/// A child keeps the exact size of its parent.
bool keepsSizeOfParent(yx::IFileSystem* files, host::NewDisk const& request,
                       NewDiskOptions const& options, Access const& access) {
    if (request.parent.isEmpty() || options.sizeBytes != -1)
        return false;
    host::SafeDisk parent(files, request.parent, yx::IIOStream::ReadOnly, access.password.get(), -1,
                          CVMDKGrainTableCache::kDefaultLimit, access.trust);
    return host::keepsExactSize(parent);
}

void createDisk(std::string const& path, NewDiskOptions const& options, py::object const& password,
                Paths const& allowPaths) {
    Access const access = Access::make(password, allowPaths);
    KeyScope const keys;
    runWork(py::none(), 0, [&](host::WorkOptions const& work) {
        auto const files = yx::makeObject<yx::CNativeFileSystem>();
        host::NewDisk const request = options.makeRequest(files.get(), access);
        verifyUsesPassword(request, access);
        bool const keepsSize = keepsSizeOfParent(files.get(), request, options, access);
        DiskMaking disk(files.get(), host::uriFromArgument(path), request, *work.cancel);
        if (keepsSize)
            host::setExactSizeBytes(disk.getDisk(), request.sizeBytes);
        disk.finish(request.sizeBytes, work);
    });
}

NewDiskOptions makeNewDiskOptions(__int64 sizeBytes, bool compressed, int level, __int64 splitBytes,
                                  bool encrypt, __int64 rounds, std::string const& parent,
                                  bool onDemand, std::string const& label, bool digests) {
    return {sizeBytes, compressed, level,    splitBytes, encrypt,
            rounds,    parent,     onDemand, label,      digests};
}

} // namespace

void addDisks(py::module_& module) {
    py::class_<NewDiskOptions>(module, "NewDiskOptions")
        .def(py::init(&makeNewDiskOptions), py::kw_only(), "size"_a, "compressed"_a, "level"_a,
             "split"_a, "encrypt"_a, "rounds"_a, "parent"_a, "on_demand"_a, "label"_a, "digests"_a);
    py::class_<OpenDisk>(module, "OpenDisk")
        .def(py::init(&openDisk))
        .def("close", &OpenDisk::close)
        .def("read", &OpenDisk::read)
        .def("write", &OpenDisk::write)
        .def("write_zeros", &OpenDisk::writeZeros)
        .def("flush", &OpenDisk::flush)
        .def("parent_path", &OpenDisk::getParentPath)
        .def("open_parent", &OpenDisk::openParent)
        .def("describe", &OpenDisk::describe)
        .def("measure_space", &OpenDisk::measureSpace)
        .def("list_extents", &OpenDisk::listExtents)
        .def_property_readonly("size", &OpenDisk::getSizeBytes)
        .def_property_readonly("is_writable", &OpenDisk::isWritable)
        .def_property_readonly("is_closed", &OpenDisk::isClosed);
    module.def("create", &createDisk);
}

} // namespace kelm::python
