// DKApplicationWithPlugIns::GetPlugInHier: the order in which plug-ins are initialised (each
// after all it depends on), with a text for every dependency cycle met. A pure function of the
// plug-ins' ids and dependency lists.
#include <DorvikCore/DKApplication.h>

#include "app/DKPlugInCalls.h"

#include <algorithm>
#include <unordered_map>
#include <vector>

using dkapp::SafeDependencies;
using dkapp::SafeGuid;
using dkapp::SafeName;

DKSmartPtrVector<DKPlugIn> DKApplicationWithPlugIns::GetPlugInHier(const DKSmartPtrVector<DKPlugIn>& plugIns,
                                                                   std::vector<DKString>* cycles) const {
  const std::size_t count = plugIns.size();
  std::unordered_map<DKGuid, std::size_t> indexOf;
  for (std::size_t i = 0; i < count; ++i)
    indexOf.emplace(SafeGuid(*plugIns[i]), i);
  std::vector<std::vector<std::size_t>> dependencies(count);
  for (std::size_t i = 0; i < count; ++i)
    for (const DKPlugIn::PlugInIdEx& dependency : SafeDependencies(*plugIns[i])) {
      const auto found = indexOf.find(dependency.GetGuid());
      if (found != indexOf.end())
        dependencies[i].push_back(found->second);
    }

  // Depth first, without recursion, so that a long chain cannot exhaust the stack. A plug-in
  // is listed once all it depends on is listed; meeting a plug-in that is still open closes a
  // cycle, which is described and then ignored.
  enum Mark { Unvisited, Open, Listed };
  std::vector<Mark> marks(count, Unvisited);
  DKSmartPtrVector<DKPlugIn> ordered;
  ordered.reserve(count);
  struct Frame {
    std::size_t node;
    std::size_t next;
  };
  std::vector<Frame> path;
  for (std::size_t root = 0; root < count; ++root) {
    if (marks[root] != Unvisited)
      continue;
    marks[root] = Open;
    path.push_back({root, 0});
    while (!path.empty()) {
      Frame& frame = path.back();
      if (frame.next < dependencies[frame.node].size()) {
        const std::size_t next = dependencies[frame.node][frame.next++];
        if (marks[next] == Unvisited) {
          marks[next] = Open;
          path.push_back({next, 0});
        } else if (marks[next] == Open && cycles) {
          DKString chain;
          const auto start = std::find_if(path.begin(), path.end(), [next](const Frame& f) { return f.node == next; });
          for (auto it = start; it != path.end(); ++it)
            chain += SafeName(*plugIns[it->node]) + DK_T(" -> ");
          cycles->push_back(chain + SafeName(*plugIns[next]));
        }
        continue;
      }
      marks[frame.node] = Listed;
      ordered.push_back(plugIns[frame.node]);
      path.pop_back();
    }
  }
  return ordered;
}
