#include "yx/internal/uri_path.h"

#include <algorithm>
#include <vector>

#include "yx/internal/uri_escape.h"

namespace yx::detail {

namespace {

// A dot needs no escape, so an escaped one means the same.

/// Names are longer than that, mostly, and need no look at their escapes.
constexpr size_t kLongestDotSegment = std::string_view("%2E%2E").size();

bool isCurrentFolder(std::string_view segment) {
    return segment.size() <= kLongestDotSegment && unescape(segment) == ".";
}

bool isParentFolder(std::string_view segment) {
    return segment.size() <= kLongestDotSegment && unescape(segment) == "..";
}

bool isDotSegment(std::string_view segment) {
    return isCurrentFolder(segment) || isParentFolder(segment);
}

/// The segments of a path that is being rebuilt without dot segments.
class SegmentStack {
public:
    /// `keepsLeadingDots` keeps a ".." that leads above the start; else it is dropped.
    explicit SegmentStack(bool keepsLeadingDots) : m_keepsLeadingDots(keepsLeadingDots) {}

    void push(std::string_view segment) { m_segments.push_back(segment); }

    void goUp() {
        // Empty segments come from repeated separators and are no folders.
        while (!m_segments.empty() && m_segments.back().empty())
            m_segments.pop_back();
        if (!m_segments.empty() && m_segments.back() != "..")
            m_segments.pop_back();
        else if (m_keepsLeadingDots)
            m_segments.push_back("..");
    }

    bool isEmpty() const { return m_segments.empty(); }

    std::string join() const {
        std::string text;
        for (std::string_view const segment : m_segments)
            text.append(segment).push_back('/');
        return text;
    }

private:
    std::vector<std::string_view> m_segments;
    bool m_keepsLeadingDots;
};

} // namespace

std::string escapeNativePath(std::string_view path) {
    return collapseSeps(escape(path, isPathChar));
}

std::string collapseSeps(std::string_view path) {
    std::string collapsed;
    collapsed.reserve(path.size());
    for (char const character : path) {
        if (character != '/' || collapsed.empty() || collapsed.back() != '/')
            collapsed += character;
    }
    return collapsed;
}

std::string removeDotSegments(std::string_view path, bool isReference) {
    bool const rooted = path.starts_with('/');
    SegmentStack segments(!rooted && isReference);
    bool endsAsFolder = true;
    for (size_t start = rooted ? 1 : 0; start < path.size();) {
        size_t const end = std::min(path.find('/', start), path.size());
        std::string_view const segment = path.substr(start, end - start);
        endsAsFolder = end < path.size() || isDotSegment(segment);
        // An empty segment at the start would give a root to a path that has none.
        bool const makesRoot = segment.empty() && segments.isEmpty() && !rooted;
        if (isParentFolder(segment))
            segments.goUp();
        else if (!isCurrentFolder(segment) && !makesRoot)
            segments.push(segment);
        start = end + 1;
    }
    std::string result = (rooted ? "/" : "") + segments.join();
    if (!endsAsFolder)
        result.pop_back();
    return result;
}

std::string escapeColonsInFirstSegment(std::string_view path) {
    size_t const end = std::min(path.find('/'), path.size());
    std::string escaped;
    for (char const character : path.substr(0, end)) {
        if (character == ':')
            escaped += "%3A";
        else
            escaped += character;
    }
    return escaped.append(path.substr(end));
}

std::string_view withoutTrailingSeps(std::string_view path) {
    while (path.size() > 1 && path.back() == '/')
        path.remove_suffix(1);
    return path;
}

size_t getNameStart(std::string_view path) {
    return path.rfind('/') + 1;
}

std::string getParentPath(std::string_view path, bool isReference) {
    std::string_view const trimmed = withoutTrailingSeps(path);
    size_t const nameStart = getNameStart(trimmed);
    if (isDotSegment(trimmed.substr(nameStart)))
        return removeDotSegments(std::string(trimmed) + "/..", isReference);
    return std::string(trimmed.substr(0, nameStart));
}

} // namespace yx::detail
