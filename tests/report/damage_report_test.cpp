// Damage in words.

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "report/damage_report.h"

namespace gsve::report {
namespace {

using programme::Damage;
using Kind = programme::DamagedRange::Kind;

TEST(DamageText, IsEmptyWithoutDamage) { EXPECT_EQ(damage_text({}), ""); }

TEST(DamageText, CountsEachKindAndNamesThePlaces) {
    const Damage damage = {.ranges = {{Kind::kDamaged, 1.2, 1.32, 3},
                                      {Kind::kMissing, 1.6, 1.64, 1},
                                      {Kind::kUndecodable, 3600.04, 3600.12, 2}},
                           .early_end = {}};
    EXPECT_EQ(
        damage_text(damage),
        "3 pictures damaged, 1 picture missing, 2 coded pictures undecodable (00:00:01.20 to 00:00:01.64, "
        "01:00:00.04 to 01:00:00.12)");
}

TEST(DamageText, KeepsToOneLineOfPlaces) {
    Damage damage;
    for (int n = 0; n < 11; n++) damage.ranges.push_back({Kind::kDamaged, 10.0 * n, 10.0 * n + 0.04, 1});
    const std::string text = damage_text(damage);
    EXPECT_NE(text.find("00:01:10.00 to 00:01:10.04 and 3 more)"), text.npos) << text;
    EXPECT_EQ(text.find("00:01:20"), text.npos) << text;
}

TEST(DamageText, SaysWhereTheInputEnds) {
    Damage damage;
    damage.early_end = {.seconds = 10.6, .expected = 20};
    EXPECT_EQ(damage_text(damage), "the input ends after 10.60 of 20.00 s");
    damage.early_end->expected.reset();
    damage.ranges = {{Kind::kDamaged, 10.56, 10.6, 1}};
    EXPECT_EQ(
        damage_text(damage),
        "1 picture damaged (00:00:10.56 to 00:00:10.60); the input ends within a picture, after 10.60 s");
}

TEST(DamageJson, HasAllRanges) {
    Damage damage;
    for (int n = 0; n < 30; n++) damage.ranges.push_back({Kind::kMissing, 2.0 * n, 2.0 * n + 1, 25});
    const nlohmann::ordered_json json = damage_json(damage);
    EXPECT_EQ(json["missing"], 750);
    EXPECT_EQ(json["damaged"], 0);
    EXPECT_EQ(json["ranges"].size(), 30u);
    EXPECT_EQ(json["ranges"][1],
              (nlohmann::ordered_json{{"kind", "missing"}, {"begin", 2.0}, {"end", 3.0}, {"pictures", 25}}));
    EXPECT_TRUE(json["early_end"].is_null());
}

}  // namespace
}  // namespace gsve::report
