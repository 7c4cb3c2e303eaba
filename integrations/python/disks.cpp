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

std::shared_ptr<OpenDisk> openDisk(std::string const& path, bool isWritable,
                                   py::object const& password, Paths const& allowPaths,
                                   bool unfinished) {
    return std::make_shared<OpenDisk>(path, isWritable,
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

void createDisk(std::string const& path, GivenOptions const& options, py::object const& password,
                Paths const& allowPaths) {
    Access const access = Access::make(password, allowPaths);
    KeyScope const keys;
    NewDiskOptions const& wanted = getHeld(options);
    runWork(py::none(), 0, [&](host::WorkOptions const& work) {
        auto const files = yx::makeObject<host::FileSystems>();
        host::NewDisk const request = wanted.makeRequest(files.get(), access);
        verifyUsesPassword(request, access);
        bool const keepsSize = keepsSizeOfParent(files.get(), request, wanted, access);
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

/// A method that takes its disk by the holder; see `getHeld`.
template <class Result, class... Arguments>
auto held(Result (OpenDisk::*method)(Arguments...)) {
    return [method](std::shared_ptr<OpenDisk> const& disk, Arguments... arguments) -> Result {
        return (getHeld(disk).*method)(arguments...);
    };
}
template <class Result>
auto held(Result (OpenDisk::*method)() const) {
    return [method](std::shared_ptr<OpenDisk> const& disk) { return (getHeld(disk).*method)(); };
}

} // namespace

void addDisks(py::module_& module) {
    py::class_<NewDiskOptions, GivenOptions>(module, "NewDiskOptions")
        .def(py::init(&makeNewDiskOptions), py::kw_only(), "size"_a, "compressed"_a, "level"_a,
             "split"_a, "encrypt"_a, "rounds"_a, "parent"_a, "on_demand"_a, "label"_a, "digests"_a);
    py::class_<OpenDisk, std::shared_ptr<OpenDisk>>(module, "OpenDisk")
        .def(py::init(&openDisk))
        .def("close", held(&OpenDisk::close))
        .def("read", held(&OpenDisk::read))
        .def("write", held(&OpenDisk::write))
        .def("write_zeros", held(&OpenDisk::writeZeros))
        .def("flush", held(&OpenDisk::flush))
        .def("parent_path", held(&OpenDisk::getParentPath))
        .def("open_parent", held(&OpenDisk::openParent))
        .def("describe", held(&OpenDisk::describe))
        .def("measure_space", held(&OpenDisk::measureSpace))
        .def("list_extents", held(&OpenDisk::listExtents))
        .def_property_readonly("size", held(&OpenDisk::getSizeBytes))
        .def_property_readonly("is_writable", held(&OpenDisk::isWritable))
        .def_property_readonly("is_closed", held(&OpenDisk::isClosed));
    module.def("create", &createDisk);
}

} // namespace kelm::python
