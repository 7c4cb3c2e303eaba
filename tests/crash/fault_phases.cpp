#include "tests/crash/fault_phases.h"

#include <algorithm>

namespace test_support {

namespace {

/// What the phase of writing leaves.
Grains const& rewrittenGrains() {
    static Grains const kGrains = [] {
        Grains grains = flushedGrains();
        grains[1] = pattern(kGrainBytes, 201);
        Bytes const part = pattern(1000, 202);
        std::copy(part.begin(), part.end(), grains[41].begin() + 500);
        std::fill(grains[3].begin(), grains[3].end(), static_cast<unsigned char>(0));
        grains[5] = textPattern(kGrainBytes, 203);
        grains[100] = pattern(kGrainBytes, 204);
        return grains;
    }();
    return kGrains;
}

void writeAll(Scene& scene) {
    Grains const& grains = rewrittenGrains();
    scene.disk->write(1 * kGrainBytes, grains.at(1));
    scene.disk->write(41 * kGrainBytes + 500, slice(grains.at(41), 500, 1000));
    scene.disk->writeZeros(3 * kGrainBytes, kGrainBytes);
    scene.disk->write(5 * kGrainBytes, grains.at(5));
    scene.disk->writePrepared(100, grains.at(100));
}

void readAll(Scene& scene) {
    Bytes content(kGrainBytes);
    for (auto const& [grain, expected] : flushedGrains()) {
        scene.disk->read(grain * kGrainBytes, content.data(), kGrainBytes);
        EXPECT_TRUE(sameBytes(expected, content)) << "grain " << grain;
    }
}

} // namespace

Grains const& flushedGrains() {
    static Grains const kGrains = [] {
        Grains grains;
        for (int const grain : {0, 1, 3, 40, 41, 127})
            grains[grain] = textPattern(kGrainBytes, static_cast<unsigned int>(grain));
        return grains;
    }();
    return kGrains;
}

std::vector<Phase> const& phases() {
    static Grains const kNothing;
    static auto const kOpen = [](Scene& scene) { scene.open(kReadWrite); };
    static std::vector<Phase> const kPhases{
        {"create", [](Scene&) {}, [](Scene& scene) { scene.create(false); }, kNothing, kNothing,
         true},
        {"open", [](Scene&) {}, kOpen, flushedGrains(), flushedGrains(), false, true},
        {"open for reading", [](Scene&) {}, [](Scene& scene) { scene.open(kReadOnly); },
         flushedGrains(), flushedGrains(), false, true},
        {"read", [](Scene& scene) { scene.open(kReadOnly); }, readAll, flushedGrains(),
         flushedGrains()},
        {"write", kOpen, writeAll, flushedGrains(), rewrittenGrains()},
        {"flush",
         [](Scene& scene) {
             scene.open(kReadWrite);
             writeAll(scene);
         },
         [](Scene& scene) { scene.disk->flush(); }, flushedGrains(), rewrittenGrains()},
        {"close",
         [](Scene& scene) {
             scene.open(kReadWrite);
             writeAll(scene);
             scene.disk->flush();
         },
         [](Scene& scene) { scene.disk.reset(); }, rewrittenGrains(), rewrittenGrains()},
        {"make independent", kOpen,
         [](Scene& scene) {
             for (int const grain : {0, 2, 4, 6, 8})
                 scene.disk->makeIndependent(grain);
         },
         flushedGrains(), flushedGrains(), false, false, true},
    };
    return kPhases;
}

} // namespace test_support
