#include "integrations/cephfs/ceph_path.h"

#include <array>
#include <cerrno>
#include <climits>
#include <deque>
#include <string_view>

#include <cephfs/libcephfs.h>
#include <fcntl.h>
#include <sys/stat.h>

namespace kelm::ceph {

namespace {

/// As many as the operating system follows.
constexpr int kMaxLinks = 40;

/// The names in a path; an empty one at its end where it ends in a separator.
std::deque<std::string> splitPath(std::string_view path) {
    std::deque<std::string> names;
    while (!path.empty()) {
        std::size_t const end = path.find('/');
        std::string_view const name = path.substr(0, end);
        if (!name.empty())
            names.emplace_back(name);
        if (end == std::string_view::npos)
            return names;
        path.remove_prefix(end + 1);
    }
    names.emplace_back();
    return names;
}

/// Goes along a path, name by name.
class PathWalk {
public:
    PathWalk(ceph_mount_info* client, std::string const& path)
        : m_client(client), m_names(splitPath(path)) {}

    /// 0 or a negative `errno` value.
    int walk() {
        while (!m_names.empty()) {
            std::string const name = m_names.front();
            m_names.pop_front();
            if (int const result = step(name); result < 0)
                return result;
        }
        return 0;
    }

    std::string getPath() const { return m_path.empty() ? "/" : m_path; }

private:
    int step(std::string const& name) {
        if (name.empty() || name == ".")
            return m_isFolder ? 0 : -ENOTDIR;
        if (!m_isFolder)
            return -ENOTDIR;
        if (name == "..") {
            m_path.erase(m_path.empty() ? 0 : m_path.rfind('/'));
            return 0;
        }
        std::string const path = m_path + "/" + name;
        struct ceph_statx status {};
        // What kind of file it is never changes, so no other client need be waited for.
        int const result = ceph_statx(m_client, path.c_str(), &status, CEPH_STATX_MODE,
                                      AT_SYMLINK_NOFOLLOW | AT_STATX_DONT_SYNC);
        // That of a file which is yet to be made.
        bool const mayBeMissing = m_names.empty() && m_links == m_linksBeforeLastName;
        if (result == -ENOENT && mayBeMissing) {
            m_path = path;
            return 0;
        }
        if (result < 0)
            return result;
        if (S_ISLNK(status.stx_mode))
            return followLink(path);
        m_path = path;
        m_isFolder = S_ISDIR(status.stx_mode);
        return 0;
    }

    int followLink(std::string const& path) {
        if (++m_links > kMaxLinks)
            return -ELOOP;
        std::array<char, PATH_MAX> content{};
        int const length =
            ceph_readlink(m_client, path.c_str(), content.data(), content.size() - 1);
        if (length < 0)
            return length;
        std::string_view const target(content.data(), static_cast<std::size_t>(length));
        if (target.starts_with('/'))
            m_path.clear();
        // What a link in the middle of a path leads to may be a folder in which a file is missing.
        if (!m_names.empty())
            ++m_linksBeforeLastName;
        std::deque<std::string> names = splitPath(target);
        names.insert(names.end(), m_names.begin(), m_names.end());
        m_names = std::move(names);
        return 0;
    }

    ceph_mount_info* m_client;
    std::deque<std::string> m_names;

    /// Empty for the root.
    std::string m_path;
    bool m_isFolder = true;
    int m_links = 0;

    /// How many of the links were not the last name.
    int m_linksBeforeLastName = 0;
};

/// As a URI holds a path. Bytes that are no UTF-8 survive.
yx::String escapePath(std::string const& path) {
    constexpr char kDigits[] = "0123456789ABCDEF";
    constexpr unsigned int kDigitBits = 4;
    constexpr unsigned int kDigitMask = 0xF;
    std::string escaped;
    for (char const character : path) {
        bool const isPlain = (character >= 'a' && character <= 'z') ||
                             (character >= 'A' && character <= 'Z') ||
                             (character >= '0' && character <= '9') || character == '/' ||
                             character == '-' || character == '.' || character == '_';
        if (isPlain) {
            escaped += character;
            continue;
        }
        auto const byte = static_cast<unsigned char>(character);
        escaped += '%';
        escaped += kDigits[byte >> kDigitBits];
        escaped += kDigits[byte & kDigitMask];
    }
    return yx::String::fromUTF8(escaped);
}

} // namespace

int resolvePath(ceph_mount_info* client, std::string const& path, std::string& resolved) {
    PathWalk walk(client, path);
    int const result = walk.walk();
    if (result == 0)
        resolved = walk.getPath();
    return result;
}

yx::CURI replacePath(yx::CURI const& uri, std::string const& path) {
    yx::CURI const normal = uri.toNormalized();
    yx::CURI const named(normal.getScheme(), escapePath(path), uri.getUserNameOptRef(), {},
                         uri.getHostOptRef(), -1, {}, {});
    return yx::CURI(normal.getScheme(), named.toNormalized().getPath(), uri.getUserNameOptRef(), {},
                    uri.getHostOptRef(), -1, {}, {});
}

} // namespace kelm::ceph
