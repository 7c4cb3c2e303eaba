#include "kelm/graindata/compressor.h"
#include "tests/graindata/grain_fixture.h"

namespace graindata_test {

namespace {

using kelm::CVMDKGrain;

class Copying : public GrainTest {};

TEST_F(Copying, CopiedCompressorCompressesAlike) {
    Bytes const plain = textPattern(4096, 1);
    auto const compress = [&](kelm::CVMDKCompressor& compressor) {
        Bytes target(8192);
        target.resize(static_cast<std::size_t>(
            compressor.compressSingleStep(plain.data(), 4096, target.data(), 8192)));
        return target;
    };
    kelm::CVMDKCompressor compressor(9);
    Bytes const expected = compress(compressor);
    kelm::CVMDKCompressor copy(compressor);
    EXPECT_EQ(compress(copy), expected);
    kelm::CVMDKCompressor assigned(0);
    EXPECT_NE(compress(assigned), expected);
    assigned = compressor;
    EXPECT_EQ(compress(assigned), expected);
}

TEST_F(Copying, CopiedPreparerPreparesAlike) {
    Buffer plain = toBuffer(textPattern(kGrainSizeBytes, 2));
    kelm::CVMDKDataPreparer preparer(kGrainSizeSectors, true, 6);
    Buffer aux;
    Bytes const expected = toBytes(*preparer.prepareGrainData(&plain, 3, &aux));
    kelm::CVMDKDataPreparer copy(preparer);
    EXPECT_EQ(toBytes(*copy.prepareGrainData(&plain, 3, &aux)), expected);
    kelm::CVMDKDataPreparer assigned(1, false, 1);
    EXPECT_FALSE(assigned.doesAnything());
    assigned = preparer;
    EXPECT_EQ(toBytes(*assigned.prepareGrainData(&plain, 3, &aux)), expected);
}

TEST_F(Copying, CopiedGrainHasPositionAndChanges) {
    putGrain(kPlain, pattern(kGrainSizeBytes, 3));
    yx::P<CVMDKGrain> const grain = makeGrain(kPlain);
    openGrain(*grain);
    Bytes const changed = textPattern(100, 4);
    write(*grain, changed);
    CVMDKGrain copy(*grain);
    yx::P<CVMDKGrain> const assigned = makeGrain(kPlain);
    *assigned = *grain;
    for (CVMDKGrain* const other : {&copy, assigned.get()}) {
        EXPECT_TRUE(other->isOpen());
        EXPECT_EQ(other->getPosition(), 100);
        other->seek(0);
        EXPECT_EQ(read(*other, 100), changed);
    }
}

} // namespace

} // namespace graindata_test
