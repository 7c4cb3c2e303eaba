#pragma once

#include "kelm/graindata/internal/grain_record.h"
#include "krym/krym.h"

namespace kelm {

// How a compressed grain's record is enciphered: all but its header, as one message.
// `CVMDKDataPreparer` has the layout.

/// What enciphers one grain.
struct RecordCipher {
    krym::ICipher& cipher;
    yx::TCryptBuffer<unsigned char> const& key;
    yx::TBuffer<unsigned char> const& iv;

    /// `record` has at least a header.
    void encipher(unsigned char const* record, int sizeBytes,
                  yx::TBuffer<unsigned char>& target) const {
        target.setUsed(kGrainRecordHeaderSizeBytes);
        yx::copyMemory(target.getData(), record, kGrainRecordHeaderSizeBytes);
        cipher.encrypt(key, record + kGrainRecordHeaderSizeBytes,
                       sizeBytes - kGrainRecordHeaderSizeBytes, target, true, iv.getData());
    }

    /// `storedSizeBytes` is what lies enciphered behind the header, a whole number of blocks.
    void decipher(unsigned char const* record, int storedSizeBytes,
                  yx::TBuffer<unsigned char>& target) const {
        // Set to full size first, so that the cipher does not have to enlarge the buffer.
        target.setUsed(storedSizeBytes + kGrainRecordHeaderSizeBytes);
        yx::copyMemory(target.getData(), record, kGrainRecordHeaderSizeBytes);
        target.setUsed(kGrainRecordHeaderSizeBytes);
        cipher.decrypt(key, record + kGrainRecordHeaderSizeBytes, storedSizeBytes, target, true,
                       iv.getData());
    }
};

} // namespace kelm
