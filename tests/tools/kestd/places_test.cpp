#include "tools/kestd/places.h"

#include <gtest/gtest.h>
#include <utility>

namespace kest::service
{
namespace
{

TEST(KestdPlaces, EachUserHasAShare)
{
    constexpr clientPlaces::placeLimits limits{.all = 5, .eachOwner = 2};
    clientPlaces places;
    const clientPlace first = places.take(1000, false, limits);
    const clientPlace second = places.take(1000, false, limits);
    EXPECT_TRUE(first && second);
    EXPECT_EQ(first.share(), second.share());
    EXPECT_FALSE(places.take(1000, false, limits));
    const clientPlace root = places.take(0, false, limits);
    EXPECT_TRUE(root);
    EXPECT_NE(first.share(), root.share());
}

TEST(KestdPlaces, NoPlaceIsGivenWhenAllAreTaken)
{
    constexpr clientPlaces::placeLimits limits{.all = 2, .eachOwner = 2};
    clientPlaces places;
    const clientPlace first = places.take(1, false, limits);
    const clientPlace second = places.take(2, false, limits);
    EXPECT_TRUE(first && second);
    EXPECT_FALSE(places.take(3, false, limits));
}

TEST(KestdPlaces, PlaceIsGivenBack)
{
    constexpr clientPlaces::placeLimits limits{.all = 1, .eachOwner = 1};
    clientPlaces places;
    {
        clientPlace first = places.take(1, false, limits);
        const clientPlace moved(std::move(first));
        EXPECT_TRUE(moved);
        EXPECT_FALSE(places.take(1, false, limits));
    }
    EXPECT_TRUE(places.take(1, false, limits));
    EXPECT_TRUE(places.take(2, false, limits));
}

TEST(KestdPlaces, AllStrangersTogetherHaveOnePlaceInEight)
{
    constexpr clientPlaces::placeLimits limits{.all = 16, .eachOwner = 8};
    clientPlaces places;
    const clientPlace first = places.take(1, true, limits);
    const clientPlace second = places.take(2, true, limits);
    EXPECT_TRUE(first && second);
    EXPECT_EQ(first.share(), second.share());
    EXPECT_FALSE(places.take(3, true, limits));
    EXPECT_TRUE(places.take(3, false, limits));
}

} // namespace
} // namespace kest::service
