#include "host/transfer/digest_making.h"

#include <algorithm>
#include <cassert>
#include <memory>
#include <vector>

#include "host/disk/digest_file_name.h"
#include "host/transfer/digest_hashers.h"
#include "host/transfer/grain_pipeline.h"
#include "host/transfer/grain_place.h"
#include "host/transfer/known_digests.h"
#include "host/transfer/plain_grains.h"
#include "host/transfer/transfer_progress.h"
#include "host/transfer/unpreparer.h"

namespace kelm::host {

DigestMaking::DigestMaking(yx::IFileSystem* fileSystem, SafeDisk& disk)
    : m_disk(disk),
      m_keys(disk.getDisk()),
      m_writer(fileSystem, digestFileOf(disk.getDisk().getMainFileURI()), m_keys) {}

void DigestMaking::keep(DigestFile& former, ChainDigests* parents) {
    m_former = &former;
    m_parents = parents;
}

void DigestMaking::add(__int64 grainIndex, Digest const& digest) {
    if (m_last)
        m_writer.add(m_last->first, m_last->second);
    m_last = {grainIndex, digest};
}

void DigestMaking::addRest(WorkOptions const& options) {
    int const threads = countThreads(options);
    __int64 next = m_last ? m_last->first : 0;
    TransferProgress progress(options, m_disk.getSizeBytes());
    Unpreparer unpreparer(m_disk, threads);
    DigestHashers hashers(m_keys, m_disk, threads);
    KnownDigests known(m_parents, m_disk, threads);
    GrainPipeline pipeline(threads, m_disk.getGrainSizeBytes(), [&](GrainItem& item, int worker) {
        if (item.hasDigest)
            return;
        yx::P<GrainItem::Buffer> const plain = unpreparer.getPlain(item, worker);
        item.digest = hashers.hash(item.grainIndex, *plain, worker);
        // A digest that no content has: the copy of what was damaged is found damaged too.
        if (known.isDamaged(item, *plain, m_keys.isKeyed, worker))
            item.digest.back() ^= 0xff;
    });
    pipeline.run(
        [&](GrainItem& item) {
            while (next < m_disk.getGrainCount() && !m_disk.isGrainWrittenHere(next)) {
                progress.advanceTo(next * m_disk.getGrainSizeBytes());
                next += std::max<__int64>(
                    countGrainsNotHere(m_disk, next, m_disk.getGrainCount() - next), 1);
            }
            if (next == m_disk.getGrainCount())
                return false;
            item.grainIndex = next++;
            fill(item, unpreparer, known);
            if (!item.hasDigest)
                progress.addRead(item.input->getUsed());
            return true;
        },
        [&](GrainItem& item) {
            m_writer.add(item.grainIndex, item.digest);
            progress.advanceTo(item.grainIndex * m_disk.getGrainSizeBytes());
        },
        grainPlaceOf(m_disk));
    progress.finish(m_disk.getSizeBytes());
}

void DigestMaking::fill(GrainItem& item, Unpreparer& unpreparer, KnownDigests& known) {
    std::optional<Digest> const kept = findKept(item.grainIndex);
    item.hasDigest = kept.has_value();
    if (kept) {
        item.digest = *kept;
        return;
    }
    unpreparer.read(item);
    known.find(item);
}

std::optional<Digest> DigestMaking::findKept(__int64 grainIndex) {
    if (!m_former)
        return std::nullopt;
    std::optional<Digest> const own = m_former->find(grainIndex);
    return own || !m_parents || m_keys.isKeyed ? own : m_parents->findPlain(grainIndex);
}

void DigestMaking::finish(__int64 imageSizeBytes, WorkOptions const& options) {
    assert(imageSizeBytes >= 0 && imageSizeBytes <= m_disk.getSizeBytes());
    m_disk.flush();
    addRest(options);
    DigestHeader header;
    header.diskSizeBytes = m_disk.getSizeBytes();
    header.imageSizeBytes = imageSizeBytes;
    header.grainSizeBytes = static_cast<int>(m_disk.getGrainSizeBytes());
    header.contentID = m_disk.getDisk().getDescriptor()->getContentID();
    if (m_image) {
        WorkOptions quiet = options;
        quiet.progress = {};
        m_image->addFromDisk(m_disk, imageSizeBytes, quiet);
        header.imageDigest = m_image->finish();
    } else if (m_former && m_former->getHeader().imageSizeBytes == imageSizeBytes) {
        header.imageDigest = m_former->getHeader().imageDigest;
    }
    m_writer.finish(header);
    m_disk.settleContent();
}

} // namespace kelm::host
