#pragma once

namespace cluster_shell {

/// Lets the pool that files lie in be full while it lives, by a quota below what it holds. That is to be
/// a mebibyte at least. A failure fails the test.
class FullPool {
public:
    FullPool();
    FullPool(FullPool const&) = delete;
    FullPool& operator=(FullPool const&) = delete;

    /// Returns when the pool is not full any more.
    ~FullPool();
};

} // namespace cluster_shell
