#pragma once

namespace kelm::host {

/// Lets the process open as many files at once as the operating system allows it. A disk keeps each
/// of its extent files open, which may be thousands; the limit that processes begin with is lower.
/// What cannot be raised stays as it is. For programs, at their start.
void raiseOpenFileLimit();

} // namespace kelm::host
