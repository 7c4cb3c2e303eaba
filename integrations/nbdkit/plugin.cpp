// The callbacks by which nbdkit serves a disk. nbdkit calls those of requests one at a time where the
// disk is certainly written to, and many at once otherwise.
//
// nbdkit may fork after `get_ready`, and whichever process goes on must be the one that holds the
// disk. So the disk is only tried out in `get_ready`, where errors still reach the user's terminal,
// and opened for good in `after_fork` or for the first client; all connections share it.
//
// A store's client may have threads, which no fork takes along. So a disk with a file in another
// store than the operating system is only looked at in `after_fork`.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>

#define NBDKIT_API_VERSION 2
#include <nbdkit-plugin.h>

#include "host/disk/busy_wait.h"
#include "host/disk/unfinished_disk.h"
#include "host/store/file_names.h"
#include "host/store/stores.h"
#include "host/system/cancel.h"
#include "host/system/derived_keys.h"
#include "host/system/error_text.h"
#include "host/system/key_derivation.h"
#include "host/system/name_text.h"
#include "host/system/open_file_limit.h"
#include "integrations/nbdkit/command_line.h"
#include "integrations/nbdkit/errno_of.h"
#include "integrations/nbdkit/served_disk.h"
#include "integrations/nbdkit/store_use.h"
#include "yx/log.h"

// The most that this plugin can do; see `chooseThreadModel`.
#define THREAD_MODEL NBDKIT_THREAD_MODEL_PARALLEL

namespace kelm::nbd {

namespace {

/// One grain of the usual size, for disks whose grains are of no size that can be preferred.
constexpr uint32_t kUsualGrainBytes = 65536;

// What the protocol lets a server prefer, in powers of two, and what any client may send at once.
constexpr __int64 kMinPreferredBytes = 512;
constexpr __int64 kMaxPreferredBytes = 32 << 20;
constexpr uint32_t kMaxRequestBytes = 32 << 20;

constexpr std::size_t kMaxRunsPerAnswer = 4096;

DiskSettings settings;
int maxRounds = host::KeyDerivationWatch::kDefaultMaxRounds;

/// For disks in use, at all openings together.
host::BusyWait busyWait;
std::mutex waitingForDisk;
std::optional<host::KeyDerivationWatch> keyDerivationWatch;

/// From the first opening to the last, so that a client that connects waits for no derivation.
std::optional<host::DerivedKeys> derivedKeys;
std::unique_ptr<ServedDisk> servedDisk;

/// Whether the disk is first looked at after the fork.
bool isInStores = false;

/// The parameter that lets a disk be served all the same; "" if there is none.
char const* wayOutOf(std::exception const& error) {
    if (dynamic_cast<host::TooManyRoundsError const*>(&error))
        return " A larger max-rounds allows more.";
    if (dynamic_cast<host::UnfinishedDiskError const*>(&error))
        return " unfinished=yes serves it as it is, read-only (-r).";
    return "";
}

void report(std::exception const& error) {
    nbdkit_error("%s%s", host::describeError(error).c_str(), wayOutOf(error));
    nbdkit_set_error(errnoOf(error));
}

/// What a callback returns: 0, or -1 after the error has been reported.
template <class Action>
int guarded(Action const& action) {
    try {
        action();
        return 0;
    } catch (std::exception const& error) {
        report(error);
        return -1;
    }
}

/// Whether the disk will certainly be opened for writing.
bool isServedForWriting() {
    return !mayOpenReadOnly(readCommandLine());
}

void load() {
    host::raiseOpenFileLimit();
    // Errors that the library logs are thrown too, and reported then.
    yx::setLogHandler([](yx::LogEntry const& entry) {
        if (entry.level == yx::LogLevel::Warning) {
            nbdkit_error("warning: %s", host::printable(entry.message.toStdString()).c_str());
        }
    });
    yx::setIgnoredExceptionHandler([](char const*, std::exception& error, bool) {
        nbdkit_error("warning: %s", host::describeError(error).c_str());
    });
}

void unload() {
    // The library may stay in memory longer than these handlers.
    derivedKeys.reset();
    keyDerivationWatch.reset();
    yx::setLogHandler({});
    yx::setIgnoredExceptionHandler({});
}

void printCapabilities() {
    std::printf("kelm_version=%s\n"
                "kelm_disks=plain,split,compressed,encrypted,child,on-demand\n"
                "kelm_parameters=file,password,parent-password,cache-tables,max-rounds,allow-path,"
                "allow-oversize,"
                "unfinished,wait\n"
                "kelm_requests=read,write,zero,flush,fua,extents,cache\n",
                KELM_VERSION);
}

bool readPassword(char const* value, host::Password& target) {
    char* text = nullptr;
    if (nbdkit_read_password(value, &text) != 0)
        return false;
    yx::String password = yx::String::fromUTF8(text);
    ::explicit_bzero(text, std::strlen(text));
    std::free(text);
    target = host::Password(password);
    password.wipe();
    return true;
}

bool configureCacheTables(char const* value) {
    int tables = 0;
    if (nbdkit_parse_int("cache-tables", value, &tables) != 0)
        return false;
    if (tables < 1)
        throw std::runtime_error("cache-tables must be at least 1");
    settings.maxCachedTables = tables;
    return true;
}

bool configureMaxRounds(char const* value) {
    if (nbdkit_parse_int("max-rounds", value, &maxRounds) != 0)
        return false;
    if (maxRounds < 1)
        throw std::runtime_error("max-rounds must be at least 1");
    return true;
}

bool configureAllowOversize(char const* value) {
    int const isAllowed = nbdkit_parse_bool(value);
    if (isAllowed == -1)
        return false;
    settings.trust.allowOversize = isAllowed == 1;
    return true;
}

bool configureUnfinished(char const* value) {
    int const isRead = nbdkit_parse_bool(value);
    if (isRead == -1)
        return false;
    settings.trust.unfinished =
        isRead == 1 ? host::UnfinishedDisks::InChain : host::UnfinishedDisks::Refused;
    return true;
}

bool configureWait(char const* value) {
    int seconds = 0;
    if (nbdkit_parse_int("wait", value, &seconds) != 0)
        return false;
    if (seconds < 0)
        throw std::runtime_error("wait must be at least 0");
    busyWait = host::BusyWait(std::chrono::seconds(seconds), nullptr);
    return true;
}

/// The name of a file as `settings` has it until the fork: one of a store is not resolved yet. A
/// scheme without a store is refused at once.
yx::CURI nameFile(char const* value) {
    if (!host::isStoreURI(value))
        return host::uriFromArgument(value);
    yx::CURI uri{yx::String::fromUTF8(value)};
    host::storeOf(uri);
    return uri;
}

void resolveNameInStore(yx::CURI& uri) {
    if (uri.getScheme() != "file")
        uri = host::resolveName(uri);
}

bool configureParameter(std::string_view key, char const* value) {
    if (key == "file") {
        // At once, since nbdkit may change its working directory later.
        settings.uri = nameFile(value);
        return true;
    }
    if (key == "password")
        return readPassword(value, settings.password);
    if (key == "parent-password")
        return readPassword(value, settings.parentPassword);
    if (key == "cache-tables")
        return configureCacheTables(value);
    if (key == "max-rounds")
        return configureMaxRounds(value);
    if (key == "allow-path") {
        settings.trust.allowedPaths.push_back(nameFile(value));
        return true;
    }
    if (key == "allow-oversize")
        return configureAllowOversize(value);
    if (key == "unfinished")
        return configureUnfinished(value);
    if (key == "wait")
        return configureWait(value);
    throw std::runtime_error("unknown parameter '" + std::string(key) + "'");
}

int configure(char const* key, char const* value) {
    bool done = false;
    int const result = guarded([&] { done = configureParameter(key, value); });
    return done ? result : -1;
}

int completeConfiguration() {
    if (settings.uri.isEmpty()) {
        nbdkit_error("the parameter file=<FILENAME> is missing");
        return -1;
    }
    keyDerivationWatch.emplace(nullptr, maxRounds);
    settings.keys = &derivedKeys.emplace();
    return 0;
}

/// A disk that is written to serves one request after the other anyway, and threads that wait for it
/// would only take time.
int chooseThreadModel() {
    return isServedForWriting() ? NBDKIT_THREAD_MODEL_SERIALIZE_ALL_REQUESTS
                                : NBDKIT_THREAD_MODEL_PARALLEL;
}

int getReady() {
    return guarded([] {
        isInStores = usesStores(settings.uri);
        if (isInStores)
            return;
        // A signal ends nbdkit here, which does not handle them yet.
        busyWait.retry([] {
            ServedDisk(settings).open(isServedForWriting() ? yx::IIOStream::ReadWrite
                                                           : yx::IIOStream::ReadOnly);
        });
    });
}

/// Opens the disk, and waits if it is in use. A server that is to stop, and a client that has gone,
/// end the wait by `CancelledError`.
void openServedDisk(yx::IIOStream::Access access) {
    std::lock_guard const waiting(waitingForDisk);
    busyWait.retry([access] {
        if (busyWait.isOn() && nbdkit_nanosleep(0, 0) != 0)
            throw host::CancelledError();
        servedDisk->open(access);
    });
}

int afterFork() {
    return guarded([] {
        resolveNameInStore(settings.uri);
        for (yx::CURI& path : settings.trust.allowedPaths)
            resolveNameInStore(path);
        servedDisk = std::make_unique<ServedDisk>(settings);
        if (isServedForWriting()) {
            openServedDisk(yx::IIOStream::ReadWrite);
        } else if (isInStores) {
            // Only to see that it can be.
            openServedDisk(yx::IIOStream::ReadOnly);
            servedDisk->close();
        }
    });
}

void cleanUp() {
    if (servedDisk)
        guarded([] { servedDisk->close(); });
    servedDisk.reset();
}

void* openConnection(int readOnly) {
    int const result = guarded([readOnly] {
        openServedDisk(readOnly != 0 ? yx::IIOStream::ReadOnly : yx::IIOStream::ReadWrite);
    });
    return result == 0 ? NBDKIT_HANDLE_NOT_NEEDED : nullptr;
}

void closeConnection(void*) {
    // Not every client flushes, and nbdkit may be killed long after its last one has gone.
    if (servedDisk->isWritable())
        guarded([] { servedDisk->flush(); });
}

int64_t getSize(void*) {
    int64_t size = -1;
    guarded([&size] { size = servedDisk->getSizeBytes(); });
    return size;
}

int getBlockSize(void*, uint32_t* minimum, uint32_t* preferred, uint32_t* maximum) {
    return guarded([=] {
        __int64 const grainBytes = servedDisk->getGrainSizeBytes();
        bool const isPreferable = grainBytes >= kMinPreferredBytes &&
                                  grainBytes <= kMaxPreferredBytes &&
                                  (grainBytes & (grainBytes - 1)) == 0;
        *minimum = 1;
        *preferred = isPreferable ? static_cast<uint32_t>(grainBytes) : kUsualGrainBytes;
        *maximum = kMaxRequestBytes;
    });
}

int canWrite(void*) {
    return servedDisk->isWritable() ? 1 : 0;
}

int canFlush(void*) {
    return 1;
}

int canForceUnitAccess(void*) {
    return NBDKIT_FUA_EMULATE;
}

int canTellExtents(void*) {
    return 1;
}

int canCache(void*) {
    return NBDKIT_CACHE_EMULATE;
}

/// All connections share the disk, so a flush on one of them covers them all.
int canServeSeveralConnections(void*) {
    return 1;
}

int readBytes(void*, void* buffer, uint32_t count, uint64_t offset, uint32_t) {
    return guarded(
        [=] { servedDisk->read(static_cast<__int64>(offset), buffer, static_cast<int>(count)); });
}

int writeBytes(void*, void const* buffer, uint32_t count, uint64_t offset, uint32_t) {
    return guarded(
        [=] { servedDisk->write(static_cast<__int64>(offset), buffer, static_cast<int>(count)); });
}

int writeZeros(void*, uint32_t count, uint64_t offset, uint32_t) {
    return guarded([=] { servedDisk->writeZeros(static_cast<__int64>(offset), __int64{count}); });
}

int flush(void*, uint32_t) {
    return guarded([] { servedDisk->flush(); });
}

int tellExtents(void*, uint32_t count, uint64_t offset, uint32_t flags, nbdkit_extents* extents) {
    bool added = true;
    int const result = guarded([&] {
        std::size_t const maxRuns = (flags & NBDKIT_FLAG_REQ_ONE) != 0 ? 1 : kMaxRunsPerAnswer;
        for (StoredRun const& run :
             servedDisk->listRuns(static_cast<__int64>(offset), __int64{count}, maxRuns)) {
            auto const length = static_cast<uint64_t>(run.lengthBytes);
            uint32_t const type = run.isStored ? 0 : NBDKIT_EXTENT_HOLE | NBDKIT_EXTENT_ZERO;
            added = added && nbdkit_add_extent(extents, offset, length, type) == 0;
            offset += length;
        }
    });
    return added ? result : -1;
}

nbdkit_plugin describePlugin() {
    nbdkit_plugin plugin = {};
    plugin.name = "kelm";
    plugin.longname = "kelm virtual disk plugin";
    plugin.version = KELM_VERSION;
    plugin.description = "Serves VMDK sparse virtual disks: compressed, encrypted, child disks.";
    plugin.magic_config_key = "file";
    plugin.config_help =
        "[file=]<FILENAME>     (required) The main file of the disk.\n"
        "password=<PASSWORD>   The password of the disk and its parents:\n"
        "                      -, +FILENAME, -FD, or the password itself.\n"
        "parent-password=<PASSWORD>\n"
        "                      That of parents which have another one.\n"
        "cache-tables=<N>      The most grain tables to keep in memory.\n"
        "max-rounds=<N>        The most rounds that a key may take to derive.\n"
        "allow-path=<FOLDER>   A folder in which files of the disk may lie,\n"
        "                      beside the disk's own; may be given several times.\n"
        "allow-oversize=<BOOL> Take a disk with grains above 64 MiB, more than\n"
        "                      65536 extents, or more than 1 TiB without files.\n"
        "unfinished=<BOOL>     Serve also a disk that was not filled to its end,\n"
        "                      read-only (-r).\n"
        "wait=<SECONDS>        How long, in all, to wait for disks that are in use;\n"
        "                      by default not at all.\n";
    plugin.load = load;
    plugin.unload = unload;
    plugin.dump_plugin = printCapabilities;
    plugin.config = configure;
    plugin.config_complete = completeConfiguration;
    plugin.thread_model = chooseThreadModel;
    plugin.get_ready = getReady;
    plugin.after_fork = afterFork;
    plugin.cleanup = cleanUp;
    plugin.open = openConnection;
    plugin.close = closeConnection;
    plugin.get_size = getSize;
    plugin.block_size = getBlockSize;
    plugin.can_write = canWrite;
    plugin.can_flush = canFlush;
    plugin.can_fua = canForceUnitAccess;
    plugin.can_extents = canTellExtents;
    plugin.can_cache = canCache;
    plugin.can_multi_conn = canServeSeveralConnections;
    plugin.pread = readBytes;
    plugin.pwrite = writeBytes;
    plugin.zero = writeZeros;
    plugin.flush = flush;
    plugin.extents = tellExtents;
    return plugin;
}

nbdkit_plugin kelmPlugin = describePlugin();

} // namespace

NBDKIT_REGISTER_PLUGIN(kelmPlugin)

} // namespace kelm::nbd
