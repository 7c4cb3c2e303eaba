#include "host/disk/parent_link.h"

#include <string_view>

#include "host/store/file_names.h"
#include "kelm/format/constants.h"

namespace kelm::host {

namespace {

constexpr char kParentFileKey[] = "parentFileNameHint";

/// Whether a line of a descriptor sets the key; lines are in the library's own form, and keys in any
/// case.
bool setsKey(wxString const& line, wxString const& key) {
    return line.BeforeFirst('=').Strip(wxString::both).IsSameAs(key, false);
}

/// The lines of a text but those that set the key.
std::string withoutKey(wxString const& text, wxString const& key) {
    wxString kept;
    size_t start = 0;
    while (start < text.length()) {
        size_t const end = std::min(text.find('\n', start), text.length() - 1) + 1;
        wxString const line = text.substr(start, end - start);
        if (!setsKey(line, key))
            kept += line;
        start = end;
    }
    return yx::String(kept).toStdString();
}

yx::TBuffer<unsigned char> bufferOf(std::string const& text) {
    yx::TBuffer<unsigned char> buffer(static_cast<int>(text.size()), -1);
    std::copy(text.begin(), text.end(), buffer.getData());
    return buffer;
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
    child.getDisk().changeParentRelPath(
        makeFileReference(child.getDisk().getMainFileURI().getParent(), parentURI));
}

void dropParentLink(SafeDisk& disk) {
    yx::P<CVMDKDescriptor> const descriptor = disk.getDisk().getDescriptor();
    *descriptor =
        CVMDKDescriptor(bufferOf(withoutKey(descriptor->toString().wx(), kParentFileKey)));
    descriptor->setParentContentID(kNoParentContentID);
    disk.getDisk().storeDescriptor();
}

} // namespace kelm::host
