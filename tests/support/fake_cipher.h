#pragma once

#include "krym/cipher.h"

namespace test_support {

/// A "cipher" with blocks of any size, which inverts every bit and ignores key and IV.
class FakeCipher : public yx::CBase, public virtual krym::ICipher {
public:
    explicit FakeCipher(int blockSizeBytes) : m_blockSizeBytes(blockSizeBytes) {}

    yx::String getID() override { return "fake"; }
    int getKeySize() override { return 0; }
    int getIVSize() override { return m_blockSizeBytes; }
    int getBlockSize() override { return m_blockSizeBytes; }

    void encrypt(yx::TCryptBuffer<unsigned char> const& key, void const* source, int sizeBytes,
                 yx::TBuffer<unsigned char>& target, bool append,
                 unsigned char const* iv) override {
        static_cast<void>(key);
        static_cast<void>(iv);
        int const offset = append ? target.getUsed() : 0;
        int const blocks = (sizeBytes + m_blockSizeBytes - 1) / m_blockSizeBytes;
        target.setUsed(offset + blocks * m_blockSizeBytes);
        for (int i = offset; i < target.getUsed(); ++i) {
            auto const plain = i - offset < sizeBytes
                                   ? static_cast<unsigned char const*>(source)[i - offset]
                                   : static_cast<unsigned char>(0);
            target.getData()[i] = static_cast<unsigned char>(~plain);
        }
    }

    void decrypt(yx::TCryptBuffer<unsigned char> const& key, void const* source, int sizeBytes,
                 yx::TBuffer<unsigned char>& target, bool append,
                 unsigned char const* iv) override {
        encrypt(key, source, sizeBytes, target, append, iv);
    }

private:
    int m_blockSizeBytes;
};

} // namespace test_support
