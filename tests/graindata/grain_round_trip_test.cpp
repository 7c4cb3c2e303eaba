#include <algorithm>
#include <random>

#include "kelm/graindata/grain.h"
#include "tests/graindata/grain_fixture.h"

namespace graindata_test {

namespace grain_round_trip_test {

namespace {

using kelm::CVMDKGrain;

constexpr unsigned int kSeed = 20260417;
constexpr int kGrainCount = 6;
constexpr int kStepCount = 400;

/// Random operations on a few grains, beside a model of plain bytes.
class GrainRoundTrip : public GrainTest {
protected:
    std::size_t upTo(std::size_t limit) { return random() % (limit + 1); }

    Bytes anyContent(std::size_t sizeBytes) {
        unsigned int const seed = static_cast<unsigned int>(random());
        switch (random() % 4) {
        case 0:
            return zeros(sizeBytes);
        case 1:
            return textPattern(sizeBytes, seed);
        case 2:
            return pattern(sizeBytes, seed);
        default:
            return sparse(sizeBytes, seed);
        }
    }

    /// Often at or beside a boundary.
    std::size_t anyPosition() {
        static constexpr std::size_t kEdges[] = {0, 1, 511, 512, 513, 4083, 4084, 4094, 4095};
        return random() % 2 == 0 ? kEdges[random() % std::size(kEdges)] : upTo(kGrainSizeBytes - 1);
    }

    void step(CVMDKGrain& grain, Kind kind, Bytes& expected) {
        std::size_t const position = anyPosition();
        std::size_t const sizeBytes =
            random() % 3 == 0 ? kGrainSizeBytes - position : upTo(kGrainSizeBytes - position);
        switch (random() % 6) {
        case 0: {
            grain.seek(static_cast<__int64>(position));
            Bytes const actual = read(grain, static_cast<int>(sizeBytes));
            EXPECT_TRUE(sameBytes(slice(expected, position, sizeBytes), actual));
            return;
        }
        case 1:
        case 2: {
            Bytes const content = anyContent(sizeBytes);
            grain.seek(static_cast<__int64>(position));
            write(grain, content);
            std::copy(content.begin(), content.end(),
                      expected.begin() + static_cast<std::ptrdiff_t>(position));
            return;
        }
        case 3:
            expected = anyContent(kGrainSizeBytes);
            grain.seek(0);
            write(grain, expected);
            return;
        case 4: {
            grain.seek(0);
            Buffer prepared = toBuffer(readPrepared(grain));
            Buffer aux;
            EXPECT_TRUE(sameBytes(
                expected, *grain.createDataPreparer()->unprepareGrainData(&prepared, &aux)));
            return;
        }
        default: {
            expected = anyContent(kGrainSizeBytes);
            grain.seek(0);
            Buffer const prepared = toBuffer(preparedForm(kind, expected, 0));
            grain.writePreparedGrainData(prepared);
            return;
        }
        }
    }

    void checkFile(Kind kind, std::vector<Bytes> const& model) {
        for (std::size_t i = 0; i < model.size(); ++i) {
            Bytes const inFile = plainInFile(kind, static_cast<__int64>(i));
            // Zeros that were never stored have no place.
            EXPECT_TRUE(sameBytes(model[i], inFile.empty() ? zeros(kGrainSizeBytes) : inFile))
                << "grain " << i;
        }
    }

    std::mt19937 random{kSeed};
};

TEST_F(GrainRoundTrip, RandomOperationsGiveWhatAModelHas) {
    SCOPED_TRACE(testing::Message() << "seed " << kSeed);
    for (int const level : {0, 1, 6})
        for (Kind const kind : kAllKinds) {
            SCOPED_TRACE(testing::Message() << kind << ", level " << level);
            for (int i = 0; i < kGrainCount; ++i)
                allocator->setSlot(i, {});
            std::vector<Bytes> model(kGrainCount, zeros(kGrainSizeBytes));
            yx::P<CVMDKGrain> const grain = makeGrain(kind, yx::IIOStream::ReadWrite, level);
            for (int i = 0; i < kStepCount && !HasFailure(); ++i) {
                std::size_t const index = random() % kGrainCount;
                openGrain(*grain, static_cast<__int64>(index));
                for (std::size_t n = upTo(3); n > 0; --n)
                    step(*grain, kind, model[index]);
            }
            grain->close();
            checkFile(kind, model);
        }
}

} // namespace

} // namespace grain_round_trip_test

} // namespace graindata_test
