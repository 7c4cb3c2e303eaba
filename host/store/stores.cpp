#include "host/store/stores.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <mutex>
#include <vector>

#include <dlfcn.h>

#include "host/store/local_store.h"
#include "host/store/store_module.h"
#include "host/store/watched_store.h"
#include "yx/error.h"
#include "yx/native_file_system.h"

namespace kelm::host {

namespace {

constexpr char kLocalScheme[] = "file";
constexpr char kFoldersVariable[] = "KELM_STORES";
constexpr char kModuleFolder[] = "kelm";
constexpr char kMakeStoreName[] = "kelm_make_store";

/// The schemes that libraries of ours have, so that a name is one of theirs also where the library
/// is not installed.
constexpr std::array<char const*, 3> kKnownSchemes{"ceph", "s3", "https"};

/// What is known of a scheme.
struct SchemeStore {
    yx::P<IStore> store;

    /// Why a library that was found has no store; empty where none was found.
    std::string problem;
};

/// The folder of the library `yx`, as it was loaded; empty if that cannot be learned.
std::filesystem::path findLibraryFolder() {
    Dl_info info = {};
    auto const* const address = reinterpret_cast<void const*>(&yx::toNativePath);
    if (::dladdr(address, &info) == 0 || !info.dli_fname)
        return {};
    return std::filesystem::path(info.dli_fname).parent_path();
}

std::vector<std::filesystem::path> listModuleFolders() {
    std::vector<std::filesystem::path> folders;
    // Null for a program with rights that its user has not: the user would choose what it runs.
    char const* const variable = ::secure_getenv(kFoldersVariable);
    std::string const text = variable ? variable : "";
    for (std::size_t start = 0; start < text.size();) {
        std::size_t const end = std::min(text.find(':', start), text.size());
        if (end > start)
            folders.emplace_back(text.substr(start, end - start));
        start = end + 1;
    }
    std::filesystem::path const own = findLibraryFolder();
    if (!own.empty())
        folders.push_back(own / kModuleFolder);
    return folders;
}

std::string lastLoadError() {
    char const* const words = ::dlerror();
    return words ? words : "";
}

SchemeStore loadFrom(std::filesystem::path const& file, std::string const& scheme) {
    void* const library = ::dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    if (!library)
        return {{}, lastLoadError()};
    auto const make = reinterpret_cast<kelm_make_store_function>(::dlsym(library, kMakeStoreName));
    if (!make)
        return {{}, lastLoadError()};
    IStore* const store = make(kelm_store_contract, scheme.c_str());
    if (!store)
        return {{}, file.string() + " is of another version."};
    return {yx::makeObject<WatchedStore>(yx::P<IStore>::adopt(store)), {}};
}

SchemeStore load(std::string const& scheme) {
    std::error_code ignored;
    for (std::filesystem::path const& folder : listModuleFolders()) {
        std::filesystem::path const file = folder / ("kelm-files-" + scheme + ".so");
        if (std::filesystem::exists(file, ignored))
            return loadFrom(file, scheme);
    }
    return {};
}

/// The stores of the process by their schemes.
class StoreTable {
public:
    static StoreTable& get() {
        // Never destroyed: a store's client may have threads until the very end.
        static auto* const table = new StoreTable();
        return *table;
    }

    SchemeStore const& find(std::string const& scheme) {
        std::lock_guard const guard(m_mutex);
        if (auto const added = m_added.find(scheme); added != m_added.end())
            return added->second;
        auto const [found, isNew] = m_loaded.try_emplace(scheme);
        if (isNew)
            found->second = load(scheme);
        return found->second;
    }

    IStore* getLocal() const { return m_local.get(); }

    void add(std::string const& scheme, yx::P<IStore> store) {
        std::lock_guard const guard(m_mutex);
        yx::P<IStore> const watched = yx::makeObject<WatchedStore>(std::move(store));
        bool const isNew = m_added.try_emplace(scheme, SchemeStore{watched, {}}).second;
        assert(isNew && "one store for each scheme");
        static_cast<void>(isNew);
    }

    void remove(std::string const& scheme) {
        std::lock_guard const guard(m_mutex);
        m_added.erase(scheme);
    }

private:
    StoreTable() : m_local(yx::makeObject<LocalStore>()) {}

    yx::P<IStore> m_local;
    std::mutex m_mutex;
    std::map<std::string, SchemeStore> m_added;
    std::map<std::string, SchemeStore> m_loaded;
};

std::string toLowerCase(std::string text) {
    for (char& character : text) {
        if (character >= 'A' && character <= 'Z')
            character = static_cast<char>(character - 'A' + 'a');
    }
    return text;
}

/// Whether a URI can have it; then it can also be a part of a library's name.
bool isScheme(std::string const& text) {
    return !text.empty() && text.front() >= 'a' && text.front() <= 'z' &&
           text.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789+-.") == std::string::npos;
}

bool isSchemeOfStore(std::string const& scheme) {
    if (!isScheme(scheme) || scheme == kLocalScheme)
        return false;
    return std::find(kKnownSchemes.begin(), kKnownSchemes.end(), scheme) != kKnownSchemes.end() ||
           StoreTable::get().find(scheme).store;
}

} // namespace

IStore* findStore(yx::CURI const& uri) {
    if (uri.getScheme() == kLocalScheme)
        return StoreTable::get().getLocal();
    std::string const scheme = toLowerCase(uri.getScheme().toStdString());
    return isScheme(scheme) ? StoreTable::get().find(scheme).store.get() : nullptr;
}

IStore& storeOf(yx::CURI const& uri) {
    if (IStore* const store = findStore(uri))
        return *store;
    std::string const scheme = toLowerCase(uri.getScheme().toStdString());
    std::string const problem = !isScheme(scheme) ? "" : StoreTable::get().find(scheme).problem;
    throw yx::CIOError(yx::CIOError::NotSupported,
                       yx::String::fromUTF8("There is no store for '" + scheme + ":' here." +
                                            (problem.empty() ? "" : " " + problem)),
                       yx::CProps().add("uri", uri.toString(true)), nullptr);
}

IStoreUpload* findUpload(yx::CURI const& uri) {
    IStore* const store = findStore(uri);
    auto* const watched = dynamic_cast<WatchedStore*>(store);
    return dynamic_cast<IStoreUpload*>(watched ? &watched->getStore() : store);
}

bool isStoreURI(std::string const& argument) {
    std::size_t const end = argument.find(":/");
    if (end == std::string::npos || end == 0)
        return false;
    return isSchemeOfStore(toLowerCase(argument.substr(0, end)));
}

AddedStore::AddedStore(std::string scheme, yx::P<IStore> store) : m_scheme(std::move(scheme)) {
    assert(m_scheme != kLocalScheme);
    StoreTable::get().add(m_scheme, std::move(store));
}

AddedStore::~AddedStore() {
    StoreTable::get().remove(m_scheme);
}

} // namespace kelm::host
