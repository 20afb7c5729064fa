// The groups of a snapshot and how they are nested, in memory: a few megabytes for 20,000 groups, shared by
// all threads of a process.
//
// Nesting is followed when it is asked for, each group once, whatever cycles there are. The set of all
// (group, ancestor) pairs is not kept: a chain of 20,000 groups alone has 200 million of them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "libvelder/LdapModule.h"

namespace velder {

// Immutable once made; any number of threads. Groups are numbered from 1 without gaps.
class GroupGraph {
 public:
  using Pair = std::pair<uint32_t, uint32_t>;  // member group, group

  // The next number belongs to this group.
  void add(std::string_view dn, std::string_view cn);
  // After all groups. False when a pair names a group that does not exist.
  bool connect(const std::vector<Pair>& nested);

  size_t size() const { return rows_.size(); }
  KnownUser::Group names(int64_t group) const;  // as long as the graph lives
  GroupMeta row(int64_t group) const;

  // The given groups and all that contain them, at any depth; ascending, each once.
  std::vector<int64_t> with_all_above(const std::vector<int64_t>& groups) const;

  // The groups that are nested, at any depth, in one of `tops` other than themselves; ascending, each once.
  std::vector<int64_t> all_below(const std::vector<int64_t>& tops) const;

 private:
  struct Row {
    size_t at;
    uint32_t dn_length;
    uint32_t cn_length;
  };
  // Neighbours of group g: to[first[g]] to to[first[g + 1] - 1].
  struct Edges {
    std::vector<uint32_t> first;
    std::vector<uint32_t> to;
  };

  static Edges make_edges(const std::vector<Pair>& pairs, size_t groups, bool upwards);
  bool known(int64_t group) const { return group >= 1 && static_cast<size_t>(group) <= rows_.size(); }

  std::string names_;
  std::vector<Row> rows_;
  Edges containers_;
  Edges members_;
};

}  // namespace velder
