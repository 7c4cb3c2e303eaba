#pragma once

#include "yx/error.h"
#include "yx/list.h"
#include "yx/path_traits.h"

namespace yx {

/// A path by the rules of `Traits`: a text, and whether it is known to be normalised.
template <class Traits>
class TPathImpl : public CBase {
public:
    /// The empty path.
    TPathImpl() = default;

    /// With `normalizeIfNeeded`, a path that is not normalised and cannot be used as it stands is
    /// normalised; that throws `CBadPathError` if it leads above its root.
    TPathImpl(String const& path, bool normalizeIfNeeded, bool isNormalized)
        : m_path(path), m_isNormalized(isNormalized) {
        if (!isNormalized && normalizeIfNeeded && Traits::pathNeedsToBeNormalizedToBeValid(path))
            m_path = normalize(false, TPathImpl()).m_path;
    }

    /// The text.
    String const& getPath() const { return m_path; }

    /// Whether the path is known to be normalised.
    bool getIsNormalized() const { return m_isNormalized; }

    /// Whether there is no text.
    bool isEmpty() const { return m_path.isEmpty(); }

    /// Whether the path begins at a root, by the rules of `Traits`.
    bool isAbsolute() const { return Traits::isAbsolute(m_path); }

    /// The path without ".", "..", empty components and foreign separators; made absolute first
    /// with `makeAbsolute`, by `toAbsolute(reference)`. A path that is normalised already is
    /// returned as it is. A ".." above the root throws `CBadPathError`; in front of a relative path
    /// it stays.
    TPathImpl normalize(bool makeAbsolute, TPathImpl const& reference) const;

    /// `reference.append(*this)`, or this path below the current directory if `reference` is empty.
    /// Absolute and empty paths are returned as they are. Throws `CError` for a foreign path type
    /// without reference.
    TPathImpl toAbsolute(TPathImpl const& reference) const;

    /// This path as a folder with `relative` in it; an absolute `relative` is returned as it is.
    TPathImpl append(TPathImpl const& relative) const;

private:
    static void appendWithSep(String& text, String const& tail) {
        wxString const& path = text.wx();
        if (!path.empty() && !Traits::isSep(path[path.length() - 1]))
            text += Traits::getSepChar();
        text += tail;
    }

    void collectComponents(wxString const& text, size_t start, bool rooted,
                           TList<String>& components) const;

    String m_path;
    bool m_isNormalized = false;
};

template <class Traits>
void TPathImpl<Traits>::collectComponents(wxString const& text, size_t start, bool rooted,
                                          TList<String>& components) const {
    wchar_t const sep = Traits::getSepChar();
    while (start < text.length()) {
        size_t const sepPos = text.find(sep, start);
        size_t const end = sepPos == wxString::npos ? text.length() : sepPos;
        String component = text.substr(start, end - start);
        start = end + 1;
        if (component.isEmpty() || component == ".")
            continue;
        if (component == "..") {
            if (!components.isEmpty() && components.back() != "..")
                components.popBack();
            else if (rooted)
                throw CBadPathError(m_path);
            else
                components.pushBack(component);
            continue;
        }
        Traits::normalizeComponent(component);
        if (!component.isEmpty())
            components.pushBack(component);
    }
}

template <class Traits>
TPathImpl<Traits> TPathImpl<Traits>::normalize(bool makeAbsolute,
                                               TPathImpl const& reference) const {
    // Deliberate: with `makeAbsolute` too; whoever says that a path is normalised is believed.
    if (m_isNormalized)
        return *this;
    String working = makeAbsolute ? toAbsolute(reference).m_path : m_path;
    Traits::normalizeSeparators(working);
    int rebuiltRootLength = 0;
    int const rootLength = Traits::getRootLength(working, &rebuiltRootLength);
    bool const rooted = rootLength >= 0;

    TList<String> components;
    collectComponents(working.wx(), rooted ? static_cast<size_t>(rootLength) : 0, rooted,
                      components);

    String text;
    if (rooted) {
        text = working.wx().Left(static_cast<size_t>(rootLength));
        Traits::normalizeRoot(text);
    }
    for (String const& component : components)
        appendWithSep(text, component);
    Traits::finalizeNormalizedPath(text);

    TPathImpl result(text, true, false);
    result.m_isNormalized = makeAbsolute || Traits::isAbsolute(result.m_path);
    return result;
}

template <class Traits>
TPathImpl<Traits> TPathImpl<Traits>::toAbsolute(TPathImpl const& reference) const {
    if (Traits::isAbsolute(m_path) || m_path.isEmpty())
        return *this;
    if (!reference.isEmpty())
        return reference.append(*this);
    if (!Traits::isNativePathType()) {
        throw CError("TPathImpl::toAbsolute without reference folder can only be used with the "
                     "native path type.",
                     "", -1, CProps(), nullptr);
    }
    return TPathImpl(getCurrentWorkDirectoryAsString(), true, false).append(*this);
}

template <class Traits>
TPathImpl<Traits> TPathImpl<Traits>::append(TPathImpl const& relative) const {
    if (relative.isEmpty())
        return *this;
    if (Traits::isAbsolute(relative.m_path))
        return relative;

    String text = m_path;
    bool const plainName =
        relative.m_path != "." && relative.m_path != ".." &&
        relative.m_path.wx().find_first_of(Traits::getAllSeps().wx()) == wxString::npos;
    if (m_isNormalized && plainName) {
        String component = relative.m_path;
        Traits::normalizeComponent(component);
        if (component.isEmpty())
            return *this;
        appendWithSep(text, component);
        Traits::finalizeNormalizedPath(text);
        return TPathImpl(text, true, true);
    }
    appendWithSep(text, relative.m_path);
    return TPathImpl(text, true, false);
}

} // namespace yx
