// An object stream of a list of a million objects, integers and strings in turns, beside a copy of
// as many bytes and beside GVariant's form of the same list. Each side's megabytes are those of its
// own form.
#include <cstring>
#include <string>
#include <vector>

#include "core/context.h"
#include "core/list.h"
#include "core/objserial.h"
#include "core/objwrappers.h"
#include "gvariant.h"
#include "report.h"

namespace {

constexpr int32 ItemCount = 1000000;

std::vector<std::string> Texts() {
    std::vector<std::string> texts;
    for (int32 i = 0; i < ItemCount; ++i) texts.push_back("/home/brisk/file-" + std::to_string(i));
    return texts;
}

ListO NewList(const std::vector<std::string>& texts) {
    ListO oList = ListNew();
    for (int32 i = 0; i < ItemCount; ++i) {
        if (i % 2 == 0) {
            ObjIntegerO oItem = ObjIntegerNew(i);
            ListPushLastItem(oList, &oItem);
        } else {
            ObjStringO oItem = ObjStringNew(texts[static_cast<std::size_t>(i)].c_str());
            ListPushLastItem(oList, &oItem);
        }
    }
    return oList;
}

struct Lists {
    std::vector<std::string> texts = Texts();
    ListO oList = NewList(texts);
    std::vector<char> stream =
        std::vector<char>(static_cast<std::size_t>(ObjSerializedSize(oList)));
    void* variants = GVariantListNew(texts);
    std::vector<char> variantBytes;

    Lists() {
        ObjSerializeToMemory(oList, stream.data(), nullptr);
        variantBytes.resize(GVariantListWrite(variants, variantBytes));
    }
    ~Lists() {
        ObjRelease(&oList);
        GVariantListFree(variants);
    }
    Lists(const Lists&) = delete;
    Lists& operator=(const Lists&) = delete;
};

void SetBytes(benchmark::State& state, std::size_t bytes) {
    state.SetBytesProcessed(state.iterations() * static_cast<int64>(bytes));
}

}  // namespace

int main(int argc, char** argv) {
    if (ContextInitialize() != TRUE) return 1;
    Lists lists;

    const auto copy = [&](benchmark::State& state) {
        std::vector<char> target(lists.stream.size());
        for (auto _ : state) {
            std::memcpy(target.data(), lists.stream.data(), target.size());
            benchmark::ClobberMemory();
        }
        SetBytes(state, target.size());
    };
    Register("out", "tessel", [&](benchmark::State& state) {
        for (auto _ : state) {
            const int32 lSize = ObjSerializedSize(lists.oList);
            if (lSize != static_cast<int32>(lists.stream.size()) ||
                ObjSerializeToMemory(lists.oList, lists.stream.data(), nullptr) != TRUE) {
                state.SkipWithError("not written");
            }
        }
        SetBytes(state, lists.stream.size());
    });
    Register("out", "memcpy", copy);
    Register("out", "GVariant", [&](benchmark::State& state) {
        for (auto _ : state) GVariantListWrite(lists.variants, lists.variantBytes);
        SetBytes(state, lists.variantBytes.size());
    });
    Register("in", "tessel", [&](benchmark::State& state) {
        for (auto _ : state) {
            void* oRead = nullptr;
            if (ObjReconstructFromMemory(&oRead, lists.stream.data()) != TRUE) {
                state.SkipWithError("not read");
            }
            ObjReleaseInternal(&oRead);
        }
        SetBytes(state, lists.stream.size());
    });
    Register("in", "memcpy", copy);
    Register("in", "GVariant", [&](benchmark::State& state) {
        for (auto _ : state) {
            if (GVariantListRead(lists.variantBytes.data(), lists.variantBytes.size()) !=
                ItemCount) {
                state.SkipWithError("not read");
            }
        }
        SetBytes(state, lists.variantBytes.size());
    });
    std::printf("The list takes %zu bytes as an object stream, %zu as a GVariant.\n",
                lists.stream.size(), lists.variantBytes.size());
    return RunPairs(argc, argv, "A list of a million objects as a stream");
}
