#include "libvelder/GroupGraph.h"

#include <algorithm>
#include <array>
#include <numeric>

#include "libvelder/LongWork.h"

namespace velder {
namespace {

// Hardly anybody is in so many. To list them, and to answer with them, takes some tenths of a millisecond.
constexpr size_t kManyGroups = 500;

// The first two different groups of those asked for from which a group is reached. Two are enough to tell
// whether a group is reached from another one than itself, and every group is worked on at most twice.
struct Origins {
  std::array<uint32_t, 2> from{};

  bool add(uint32_t origin) {
    for (uint32_t& place : from) {
      if (place == origin) return false;
      if (place == 0) return place = origin, true;
    }
    return false;
  }
  bool any_but(uint32_t group) const {
    return std::any_of(from.begin(), from.end(), [&](uint32_t o) { return o != 0 && o != group; });
  }
};

}  // namespace

void GroupGraph::add(std::string_view dn, std::string_view cn) {
  rows_.push_back({names_.size(), static_cast<uint32_t>(dn.size()), static_cast<uint32_t>(cn.size())});
  names_.append(dn).append(cn);
}

bool GroupGraph::connect(const std::vector<Pair>& nested) {
  if (!std::all_of(nested.begin(), nested.end(),
                   [&](const Pair& pair) { return known(pair.first) && known(pair.second); })) {
    return false;
  }
  containers_ = make_edges(nested, rows_.size(), true);
  members_ = make_edges(nested, rows_.size(), false);
  return true;
}

GroupGraph::Edges GroupGraph::make_edges(const std::vector<Pair>& pairs, size_t groups, bool upwards) {
  Edges edges;
  edges.first.assign(groups + 2, 0);
  edges.to.resize(pairs.size());
  const auto start = [&](const Pair& pair) { return upwards ? pair.first : pair.second; };
  for (const Pair& pair : pairs) ++edges.first[start(pair) + 1];
  std::partial_sum(edges.first.begin(), edges.first.end(), edges.first.begin());
  std::vector<uint32_t> next = edges.first;
  for (const Pair& pair : pairs) edges.to[next[start(pair)]++] = upwards ? pair.second : pair.first;
  return edges;
}

KnownUser::Group GroupGraph::names(int64_t group) const {
  if (!known(group)) return {};
  const Row& row = rows_[static_cast<size_t>(group - 1)];
  const std::string_view all = names_;
  return {all.substr(row.at, row.dn_length), all.substr(row.at + row.dn_length, row.cn_length)};
}

GroupMeta GroupGraph::row(int64_t group) const {
  const KnownUser::Group names = this->names(group);
  return {std::string(names.dn), std::string(names.cn)};
}

std::vector<int64_t> GroupGraph::with_all_above(const std::vector<int64_t>& groups) const {
  std::vector<bool> reached(rows_.size() + 1);
  std::vector<int64_t> found;  // what stands behind the one being looked at is still to be done
  const auto reach = [&](int64_t group) {
    if (!known(group) || reached[static_cast<size_t>(group)]) return;
    reached[static_cast<size_t>(group)] = true;
    found.push_back(group);
    if (found.size() == kManyGroups) before_long_work();
  };
  std::for_each(groups.begin(), groups.end(), reach);
  for (size_t done = 0; done < found.size(); ++done) {
    const auto group = static_cast<size_t>(found[done]);
    for (size_t at = containers_.first[group]; at < containers_.first[group + 1]; ++at) {
      reach(containers_.to[at]);
    }
  }
  std::sort(found.begin(), found.end());
  return found;
}

std::vector<int64_t> GroupGraph::all_below(const std::vector<int64_t>& tops) const {
  struct Arrival {
    uint32_t group;
    uint32_t origin;
  };
  std::vector<Origins> reached(rows_.size() + 1);
  std::vector<Arrival> waiting;
  for (const int64_t top : tops) {
    if (known(top)) waiting.push_back({static_cast<uint32_t>(top), static_cast<uint32_t>(top)});
  }
  while (!waiting.empty()) {
    const Arrival arrival = waiting.back();
    waiting.pop_back();
    for (size_t at = members_.first[arrival.group]; at < members_.first[arrival.group + 1]; ++at) {
      const uint32_t member = members_.to[at];
      if (reached[member].add(arrival.origin)) waiting.push_back({member, arrival.origin});
    }
  }
  std::vector<int64_t> found;
  for (uint32_t group = 1; group <= rows_.size(); ++group) {
    if (reached[group].any_but(group)) found.push_back(group);
  }
  return found;
}

}  // namespace velder
