// Random operations on a map beside a model of it: small room and few keys, so that every case
// comes up.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <utility>
#include <vector>

#include "core/types.h"

using Entries = std::vector<std::pair<int32, int32>>;  // keys and values

// The operations of the fixture M on entries: Insert, Update, Remove, Delete, Find, ReleaseAll,
// Contents, and Released, which takes what the map has released since it was last asked.
template <class M>
void ExpectLikeModel(M& map, unsigned seed) {
    std::mt19937 engine(seed);
    std::map<int32, int32> model;
    for (int32 step = 0; step < 20000; step++) {
        SCOPED_TRACE(step);
        const int32 key = static_cast<int32>(engine() % 40) - 20;
        const auto found = model.find(key);
        const BooleanT present = BooleanFrom(found != model.end());
        Entries released;
        const auto erase = [&] {
            if (present == TRUE) released.push_back(*found);
            model.erase(key);
            return present;
        };
        switch (engine() % 6) {
            case 0:
                ASSERT_EQ(map.Insert(key, step), BooleanFrom(present != TRUE));
                model.emplace(key, step);
                break;
            case 1:
                erase();
                model[key] = step;
                ASSERT_EQ(map.Update(key, step), TRUE);
                break;
            case 2:
                ASSERT_EQ(map.Remove(key), erase());
                break;
            case 3:
                ASSERT_EQ(map.Delete(key), erase());
                break;
            case 4:
                ASSERT_NO_FATAL_FAILURE(map.Find(key, present == TRUE ? &found->second : nullptr));
                break;
            default:
                if (engine() % 200 != 0 || step > 19000) break;
                released.assign(model.begin(), model.end());
                model.clear();
                ASSERT_EQ(map.ReleaseAll(), TRUE);
        }
        ASSERT_EQ(map.Contents(), Entries(model.begin(), model.end()));
        ASSERT_EQ(map.Released(), released);
    }
    // What is left goes with the map, each entry through the callback while it is whole.
    ASSERT_FALSE(model.empty());
    map.ReleaseMap();
    EXPECT_EQ(map.Released(), Entries(model.begin(), model.end()));
}
