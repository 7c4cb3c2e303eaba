#pragma once

#include <functional>
#include <string>

/// What tests do to the cluster that the script has started.
namespace cluster_shell {

/// Runs commands of the shell in the cluster's folder, which is $1, and returns their output. A
/// failure fails the test.
std::string runInShell(std::string const& commands);

/// Runs `tests/cluster/cluster` with arguments in which "$1" is the cluster's folder, such as
/// `kill "$1" osd.1`.
void runScript(std::string const& arguments);

/// Asks again and again whether it is so, for two minutes. A failure fails the test.
bool comesTrue(std::function<bool()> const& isSo);

/// Has the cluster end the session of the client that came last.
void evictLastClient();

/// Whether all servers are up and all that is stored has all of its copies.
bool isClusterWhole();

/// Whether writing and reading stand still, since too few servers have a copy.
bool standsStill();

/// The name of the metadata server that is at work, such as "a"; empty while there is none.
std::string findActiveMetadataServer();

} // namespace cluster_shell
