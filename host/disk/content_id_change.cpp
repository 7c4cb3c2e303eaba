#include "host/disk/content_id_change.h"

#include <cassert>

#include "kelm/format/constants.h"
#include "yx/mt_rand.h"
#include "yx/number.h"

namespace kelm::host {

namespace {

constexpr int kBitsOfDigit = 4;
constexpr int kMaxContentIDDigits = 8;

int countDigits(unsigned int contentID) {
    return static_cast<int>(yx::toHexString(contentID).wx().length());
}

} // namespace

unsigned int drawContentIDLike(unsigned int contentID) {
    int const digits = countDigits(contentID);
    assert(digits >= 1 && digits <= kMaxContentIDDigits);
    for (;;) {
        unsigned int const drawn =
            yx::CMTRand::drawGlobal32() >> kBitsOfDigit * (kMaxContentIDDigits - digits);
        if (drawn != 0 && drawn != kNoParentContentID && drawn != contentID &&
            countDigits(drawn) == digits)
            return drawn;
    }
}

ContentIDChange::ContentIDChange(CVMDKDisk& disk) : m_disk(disk) {
    disk.setContentIDUpdatesEnabled(false);
}

void ContentIDChange::ensureDone() {
    if (m_isDone)
        return;
    yx::P<CVMDKDescriptor> const descriptor = m_disk.getDescriptor();
    unsigned int const oldContentID = descriptor->getContentID();
    descriptor->setContentID(drawContentIDLike(oldContentID));
    try {
        m_disk.storeDescriptor();
    } catch (...) {
        descriptor->setContentID(oldContentID);
        throw;
    }
    assert(descriptor->getContentID() != oldContentID);
    m_isDone = true;
}

} // namespace kelm::host
