#pragma once

// Who may do what: the clients a robot knows, by Unix user or bearer token,
// and for each the resources it may ask for, the highest priority it may use
// and whether it is an operator.

#include <map>
#include <optional>
#include <string>
#include <vector>

#include <zumanager/zumanager.h>

namespace ZU {

/// Who calls: the Unix user of a local caller (from the socket's peer
/// credentials), or the bearer token a remote caller presented. Either may
/// be missing.
struct ZUCaller {
  std::optional<std::string> user;
  std::optional<std::string> token;
};

/// What one client may do.
struct ZURight {
  /// Resource names or patterns ('*' any run of characters, '?' any one).
  std::vector<std::string> resources;
  /// The highest priority its requests and owners may have.
  int maxPriority = 0;
  /// Force-release, setState and releaseState.
  bool isOperator = false;
};

/// What a caller asks to do.
enum class ZUAction {
  Read,          ///< status, snapshot, explain, watch
  Acquire,       ///< acquire, or make an owner, at a priority
  Release,       ///< release, switch owner
  ForceRelease,  ///< take a resource from its holder
  SetState       ///< setState, releaseState
};

/// The rights of the known clients. Without any client, everyone may do
/// everything (the service then listens on its Unix socket only).
///
/// Built by parseRights() from a rights file.
///
/// Thread safety: immutable once built; concurrent checks are safe.
class ZURights {
 public:
  /// Whether any client is known: then unknown callers are refused.
  bool restricted() const { return !users_.empty() || !tokens_.empty(); }

  /// The right of `caller`: its token's when it presents one, else its user's.
  /// Throws ZUManagerError (Unauthenticated) for a caller nobody knows, or a
  /// token nobody issued. Null when no client is known (everything allowed).
  const ZURight* rightOf(const ZUCaller& caller) const;
  /// Refuses what `caller` may not do: Unauthenticated as rightOf(); else
  /// PermissionDenied for a resource outside its patterns (a group is inside
  /// when its own name is, or every member's is: `leaves`), a priority above
  /// its ceiling, or an operator's action by a non-operator. The message says
  /// which. `resource` and `leaves` are ignored for Read, ForceRelease checks
  /// the resource too.
  void check(const ZUCaller& caller, ZUAction action, const std::string& resource = "",
             const std::vector<std::string>& leaves = {}, int priority = 0) const;

  /// check() with the members of `resource` read from `manager` (none for an
  /// unknown name). A refusal is logged (level 2, category "zumanager") before
  /// it is thrown.
  void authorize(const ZUManager& manager, const ZUCaller& caller, ZUAction action,
                 const std::string& resource = "", int priority = 0) const;

  /// Whether `name` matches `pattern` ('*' any run, '?' any one character).
  static bool matches(const std::string& pattern, const std::string& name);

  /// The widest priority a client may be given, either way.
  static constexpr long kMaxPriority = 1000000;

 private:
  friend ZURights parseRights(const std::string& text, const std::string& file);

  std::map<std::string, ZURight> users_;
  std::map<std::string, ZURight> tokens_;
};

/// The "clients" section of a file (the service's resource tree file):
///   {"clients": [{"user": "nav", "resources": ["Head", "*Arm"], "maxPriority": 5},
///                {"token": "...", "resources": ["*"], "operator": true}], ...}
/// Each entry gives a Unix user or a bearer token, the resource names or
/// patterns it may ask for (at least one), its highest priority (default 0,
/// within +-kMaxPriority) and whether it is an operator (default false).
/// Other sections are not read. No "clients" section gives rights that allow
/// everything. Throws ZUInputError naming the file, the entry and the field.
ZURights parseRights(const std::string& text, const std::string& file);
/// Reads and parses the regular file at `path`. Throws ZUInputError.
ZURights loadRights(const std::string& path);

}  // namespace ZU
