#include "tools/kelm/picture_file.h"

#include "host/disk/disk_files.h"
#include "host/transfer/raw_target.h"
#include "tools/kelm/errors.h"
#include "tools/kelm/local_file.h"

namespace kelm::tool {

void writePicture(Invocation& invocation, std::string const& document, std::string const& file,
                  bool force) {
    verifyIsOnThisMachine("The picture", file);
    if (force && host::isDiskMainFile(file))
        throw UsageError("The picture would overwrite a file of a disk: " + file);
    host::RawTarget target(file, force, &invocation.getCancel());
    target.write(reinterpret_cast<unsigned char const*>(document.data()),
                 static_cast<int>(document.size()));
    target.finish();
}

} // namespace kelm::tool
