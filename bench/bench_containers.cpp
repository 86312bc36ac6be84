// Lists, maps and trees of a million items beside std::list, std::map and a plain tree. The items
// of a list or tree are objects of their own, so the others hold items from the heap too.
#include <algorithm>
#include <list>
#include <map>
#include <memory>
#include <random>
#include <vector>

#include "core/context.h"
#include "core/list.h"
#include "core/map.h"
#include "core/objwrappers.h"
#include "core/tree.h"
#include "report.h"

namespace {

constexpr int32 ItemCount = 1000000;
constexpr int32 FanOut = 10;  // children of a tree node

using StdList = std::list<std::unique_ptr<int32>>;

ListO NewList() {
    ListO oList = ListNew(ObjIntegerMagic);
    for (int32 i = 0; i < ItemCount; ++i) {
        ObjIntegerO oItem = ObjIntegerNew(i);
        ListPushLastItem(oList, &oItem);
    }
    return oList;
}

StdList NewStdList() {
    StdList list;
    for (int32 i = 0; i < ItemCount; ++i) list.push_back(std::make_unique<int32>(i));
    return list;
}

void ListPush(benchmark::State& state) {
    for (auto _ : state) {
        ListO oList = NewList();
        state.PauseTiming();
        ObjRelease(&oList);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * ItemCount);
}

void StdListPush(benchmark::State& state) {
    for (auto _ : state) {
        StdList list = NewStdList();
        state.PauseTiming();
        list.clear();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * ItemCount);
}

BooleanT AddItem(void* pSum, ListNodeO oNode) {
    *static_cast<int64*>(pSum) += ObjGetInteger(static_cast<ObjIntegerO>(oNode->oData));
    return TRUE;
}

void ListWalkAll(benchmark::State& state) {
    ListO oList = NewList();
    for (auto _ : state) {
        int64 sum = 0;
        ListWalk(oList, AddItem, &sum);
        benchmark::DoNotOptimize(sum);
    }
    ObjRelease(&oList);
    state.SetItemsProcessed(state.iterations() * ItemCount);
}

void StdListWalkAll(benchmark::State& state) {
    const StdList list = NewStdList();
    for (auto _ : state) {
        int64 sum = 0;
        for (const auto& item : list) sum += *item;
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * ItemCount);
}

void ListRelease(benchmark::State& state) {
    for (auto _ : state) {
        state.PauseTiming();
        ListO oList = NewList();
        state.ResumeTiming();
        ObjRelease(&oList);
    }
    state.SetItemsProcessed(state.iterations() * ItemCount);
}

void StdListRelease(benchmark::State& state) {
    for (auto _ : state) {
        state.PauseTiming();
        StdList list = NewStdList();
        state.ResumeTiming();
        list.clear();
    }
    state.SetItemsProcessed(state.iterations() * ItemCount);
}

struct Entry {
    int32 lKey;
    int32 lValue;
};

int32 CompareEntries(void* pEntry1, void* pEntry2) {
    const int32 lKey1 = static_cast<Entry*>(pEntry1)->lKey;
    const int32 lKey2 = static_cast<Entry*>(pEntry2)->lKey;
    return lKey1 < lKey2 ? -1 : lKey1 > lKey2;
}

std::vector<int32> ShuffledKeys() {
    std::vector<int32> keys(ItemCount);
    for (int32 i = 0; i < ItemCount; ++i) keys[static_cast<std::size_t>(i)] = 2 * i;
    std::shuffle(keys.begin(), keys.end(), std::mt19937(1));
    return keys;
}

void MapFind(benchmark::State& state) {
    MapO oMap = nullptr;
    MapCreate(&oMap, sizeof(Entry), ItemCount, CompareEntries, nullptr, nullptr);
    for (int32 i = 0; i < ItemCount; ++i) {
        Entry entry = {2 * i, i};
        MapInsertEntry(oMap, &entry);
    }
    const std::vector<int32> keys = ShuffledKeys();
    for (auto _ : state) {
        int64 sum = 0;
        for (const int32 key : keys) {
            Entry wanted = {key, 0};
            void* pFound = nullptr;
            if (MapFindEntry(&pFound, oMap, &wanted) == TRUE) {
                sum += static_cast<Entry*>(pFound)->lValue;
            }
        }
        if (sum != int64{ItemCount} * (ItemCount - 1) / 2) state.SkipWithError("not all found");
    }
    ObjRelease(&oMap);
    state.SetItemsProcessed(state.iterations() * ItemCount);
}

void StdMapFind(benchmark::State& state) {
    std::map<int32, int32> map;
    for (int32 i = 0; i < ItemCount; ++i) map.emplace_hint(map.end(), 2 * i, i);
    const std::vector<int32> keys = ShuffledKeys();
    for (auto _ : state) {
        int64 sum = 0;
        for (const int32 key : keys) {
            const auto found = map.find(key);
            if (found != map.end()) sum += found->second;
        }
        if (sum != int64{ItemCount} * (ItemCount - 1) / 2) state.SkipWithError("not all found");
    }
    state.SetItemsProcessed(state.iterations() * ItemCount);
}

struct PlainNode {
    std::unique_ptr<int32> item;
    PlainNode* parent = nullptr;
    PlainNode* next = nullptr;
    PlainNode* firstChild = nullptr;
    PlainNode* lastChild = nullptr;
};

// Calls a function for the parent's index of every item after the first.
template <class F>
void ForEachChild(F function) {
    for (int32 i = 1; i < ItemCount; ++i) function(i, static_cast<std::size_t>((i - 1) / FanOut));
}

TreeCallbackResultE AddNode(void* pSum, TreeNodeO oNode) {
    *static_cast<int64*>(pSum) += ObjGetInteger(static_cast<ObjIntegerO>(oNode->oData));
    return TreeWalkContinue;
}

void TreeWalkAll(benchmark::State& state) {
    TreeO oTree = TreeNew();
    std::vector<TreeNodeO> nodes;
    ObjIntegerO oItem = ObjIntegerNew(0);
    nodes.push_back(TreePushRootItem(&oItem, oTree));
    ForEachChild([&](int32 i, std::size_t parent) {
        oItem = ObjIntegerNew(i);
        nodes.push_back(TreePushItem(&oItem, nodes[parent], TREE_LAST_CHILD));
    });
    for (auto _ : state) {
        int64 sum = 0;
        TreeWalk(oTree, AddNode, &sum, FALSE);
        if (sum != int64{ItemCount} * (ItemCount - 1) / 2) state.SkipWithError("not all walked");
    }
    ObjRelease(&oTree);
    state.SetItemsProcessed(state.iterations() * ItemCount);
}

void PlainTreeWalkAll(benchmark::State& state) {
    std::vector<std::unique_ptr<PlainNode>> nodes;
    nodes.push_back(std::make_unique<PlainNode>());
    nodes[0]->item = std::make_unique<int32>(0);
    ForEachChild([&](int32 i, std::size_t parent) {
        nodes.push_back(std::make_unique<PlainNode>());
        PlainNode* node = nodes.back().get();
        PlainNode* above = nodes[parent].get();
        node->item = std::make_unique<int32>(i);
        node->parent = above;
        (above->lastChild == nullptr ? above->firstChild : above->lastChild->next) = node;
        above->lastChild = node;
    });
    for (auto _ : state) {
        int64 sum = 0;
        const PlainNode* node = nodes[0].get();
        while (node != nullptr) {
            sum += *node->item;
            if (node->firstChild != nullptr) {
                node = node->firstChild;
                continue;
            }
            while (node != nullptr && node->next == nullptr) node = node->parent;
            if (node != nullptr) node = node->next;
        }
        if (sum != int64{ItemCount} * (ItemCount - 1) / 2) state.SkipWithError("not all walked");
    }
    state.SetItemsProcessed(state.iterations() * ItemCount);
}

}  // namespace

int main(int argc, char** argv) {
    if (ContextInitialize() != TRUE) return 1;
    Register("list: make and push an item", "tessel", ListPush);
    Register("list: make and push an item", "std::list", StdListPush);
    Register("list: walk", "tessel", ListWalkAll);
    Register("list: walk", "std::list", StdListWalkAll);
    Register("list: release", "tessel", ListRelease);
    Register("list: release", "std::list", StdListRelease);
    Register("map: find", "tessel", MapFind);
    Register("map: find", "std::map", StdMapFind);
    Register("tree: walk", "tessel", TreeWalkAll);
    Register("tree: walk", "plain tree", PlainTreeWalkAll);
    return RunPairs(argc, argv, "Containers of a million items, per item");
}
