#include "host/disk/parent_link.h"

#include "host/store/file_names.h"
#include "kelm/format/constants.h"

namespace kelm::host {

namespace {

void setParentHint(CVMDKDescriptor& descriptor, yx::String const& hint) {
    // A line without quotes, as other software may write it, stays one, and loses blanks at the
    // ends.
    if (hint.wx() != hint.wx().Strip(wxString::both))
        descriptor.removeParentFileNameHint();
    descriptor.setParentFileNameHint(hint);
}

} // namespace

void repointToParent(SafeDisk& child, SafeDisk& parent, ParentCheck check) {
    yx::P<CVMDKDescriptor> const descriptor = child.getDisk().getDescriptor();
    unsigned int const expected = descriptor->getParentContentID();
    unsigned int const actual = parent.getDisk().getDescriptor()->getContentID();
    yx::CURI const parentURI = parent.getDisk().getMainFileURI();
    if (check == ParentCheck::Content && actual != expected) {
        throw yx::CIOError(yx::CIOError::NotAllowed,
                           "The new parent is not what the child disk was made of.",
                           yx::CProps()
                               .add("parentURI", parentURI.toString(true))
                               .add("expectedContentID", yx::toHexString(expected))
                               .add("actualContentID", yx::toHexString(actual)),
                           nullptr);
    }
    descriptor->setParentContentID(actual);
    setParentHint(*descriptor,
                  makeFileReference(child.getDisk().getMainFileURI().getParent(), parentURI));
    child.storeDescriptor();
}

void dropParentLink(SafeDisk& disk) {
    yx::P<CVMDKDescriptor> const descriptor = disk.getDisk().getDescriptor();
    descriptor->removeParentFileNameHint();
    descriptor->setParentContentID(kNoParentContentID);
    disk.storeDescriptor();
}

} // namespace kelm::host
