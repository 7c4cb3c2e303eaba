// What our cipher class costs: AES-256-CBC on grains of 64 KiB, beside OpenSSL called directly.
//
//   bench_krym [--rounds N]

#include <memory>

#include <openssl/evp.h>

#include "bench/arguments.h"
#include "bench/interleaved.h"
#include "krym/krym.h"

namespace {

constexpr int kGrainSizeBytes = 65536;
/// Enough that the clock is read seldom.
constexpr int kGrainsPerRound = 20;
constexpr double kAim = 0.97;

/// A context of OpenSSL with everything made beforehand, as our class has it.
class CDirectCipher {
public:
    explicit CDirectCipher(int direction) {
        EVP_CipherInit_ex2(m_context.get(), m_cipher.get(), nullptr, nullptr, direction, nullptr);
        EVP_CIPHER_CTX_set_padding(m_context.get(), 0);
    }

    void run(unsigned char const* key, unsigned char const* iv, unsigned char const* source,
             unsigned char* target) {
        int sizeBytes = 0;
        EVP_CipherInit_ex2(m_context.get(), nullptr, key, iv, -1, nullptr);
        EVP_CipherUpdate(m_context.get(), target, &sizeBytes, source, kGrainSizeBytes);
    }

private:
    struct Free {
        void operator()(EVP_CIPHER* cipher) const { EVP_CIPHER_free(cipher); }
        void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
    };

    std::unique_ptr<EVP_CIPHER, Free> m_cipher{EVP_CIPHER_fetch(nullptr, "AES-256-CBC", nullptr)};
    std::unique_ptr<EVP_CIPHER_CTX, Free> m_context{EVP_CIPHER_CTX_new()};
};

void benchGrain(char const* name, bool isEncrypting, int rounds) {
    yx::TCryptBuffer<unsigned char> key(32, -1);
    yx::initMemory(key.getData(), 0x5a, 32);
    unsigned char const iv[16] = {1, 2, 3};
    yx::TBuffer<unsigned char> source(kGrainSizeBytes, -1);
    yx::initMemory(source.getData(), 0xa5, kGrainSizeBytes);
    yx::TBuffer<unsigned char> target(kGrainSizeBytes, -1);

    CDirectCipher direct(isEncrypting ? 1 : 0);
    krym::CCipher_AES256CBC ours;
    double const ratio = bench::speedRatio(
        rounds,
        [&] {
            for (int i = 0; i < kGrainsPerRound; ++i)
                direct.run(key.getData(), iv, source.getData(), target.getData());
        },
        [&] {
            for (int i = 0; i < kGrainsPerRound; ++i) {
                if (isEncrypting)
                    ours.encrypt(key, source.getData(), kGrainSizeBytes, target, false, iv);
                else
                    ours.decrypt(key, source.getData(), kGrainSizeBytes, target, false, iv);
            }
        });
    bench::report(name, ratio, kAim, "");
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app("Measures the cipher beside OpenSSL.");
    int rounds = 201;
    bench::addRoundsTo(app, rounds);
    CLI11_PARSE(app, argc, argv);

    benchGrain("encrypt 64 KiB / OpenSSL called directly", true, rounds);
    benchGrain("decrypt 64 KiB / OpenSSL called directly", false, rounds);
    return 0;
}
