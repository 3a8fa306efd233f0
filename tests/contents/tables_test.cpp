/// The tables of all formats, tested as tables.
#include <algorithm>
#include <functional>
#include <gtest/gtest.h>
#include <set>

#include "contents/formatlist.h"
#include "contents/identifiers.h"
#include "contents/recognise.h"

namespace kest::contents::test
{
namespace
{

using RowCheck = std::function<void(const row& field)>;

void forEachRow(const rowList& rows, const RowCheck& check)
{
    for (const row& each : rows) {
        check(each);
        forEachRow(each.rows, check);
        forEachRow(each.entries.header, check);
        forEachRow(each.entries.known, check);
        forEachRow(each.strings.known, check);
    }
}

void forEachRowOfAll(const RowCheck& check)
{
    for (const format* each : formats()) {
        SCOPED_TRACE(each->name);
        forEachRow(each->rows, [&check](const row& field) {
            SCOPED_TRACE(std::string(field.label) + " (" + std::string(field.name) + ")");
            check(field);
        });
    }
}

bool isNumber(kind which)
{
    return which == kind::number || which == kind::choice || which == kind::flags || which == kind::hexadecimal;
}

/// The fields that a row refers to.
std::vector<std::string_view> references(const row& field)
{
    std::vector<std::string_view> all{field.by.factorField,       field.by.divisorField,      field.fine.by.factorField,
                                      field.fine.by.divisorField, field.when.field,           field.also.field,
                                      field.where.atField,        field.where.lengthField,    field.sum.lengthField,
                                      field.countField,           field.entries.typeField,    field.entries.lengthField,
                                      field.entries.lastField,    field.strings.languageField};
    all.insert(all.end(), field.where.beforeFields.begin(), field.where.beforeFields.end());
    for (const factor& each : field.factors) {
        all.push_back(each.field);
        all.push_back(each.plusField);
    }
    return all;
}

TEST(Tables, FormatsHaveNamesOfTheirOwnAndNameTheirDocument)
{
    std::set<std::string_view> names;
    for (const format* each : formats()) {
        EXPECT_TRUE(names.insert(each->name).second) << each->name;
        EXPECT_EQ(each, findFormat(each->name));
        EXPECT_FALSE(each->title.empty()) << each->name;
        EXPECT_FALSE(each->document.empty()) << each->name;
        EXPECT_FALSE(each->signatures.empty()) << each->name << " can't be recognised";
    }
    EXPECT_EQ(nullptr, findFormat("nothing"));
}

TEST(Tables, NamesAreCamelBack)
{
    forEachRowOfAll([](const row& field) {
        const auto isWordCharacter = [](char each) {
            return (each >= 'a' && each <= 'z') || (each >= 'A' && each <= 'Z') || (each >= '0' && each <= '9');
        };
        EXPECT_TRUE(std::all_of(field.name.begin(), field.name.end(), isWordCharacter));
        EXPECT_TRUE(field.name.empty() || (field.name.front() >= 'a' && field.name.front() <= 'z'));
    });
}

TEST(Tables, ValuesHaveANameAndALabel)
{
    forEachRowOfAll([](const row& field) {
        if (!isStructure(field.as)) {
            EXPECT_FALSE(field.name.empty());
            EXPECT_EQ(field.isHidden, field.label.empty());
        }
    });
}

TEST(Tables, ValuesHaveALengthThatFitsTheirKind)
{
    forEachRowOfAll([](const row& field) {
        const std::size_t fixed = bytesOfKind(field.as);
        EXPECT_TRUE(fixed == 0 || field.length == fixed) << "this kind has " << fixed << " bytes";
        if (isNumber(field.as)) {
            EXPECT_GE(field.length, 1U);
            EXPECT_LE(field.length, 8U);
            EXPECT_LE(field.bit + field.bits, field.length * 8);
            EXPECT_LT(field.bit, field.length * 8);
        }
        EXPECT_TRUE(field.as != kind::bcd || field.length <= 8);
        for (const place& piece : field.more) {
            EXPECT_GE(piece.bits, 1);
            EXPECT_LE(piece.bit + piece.bits, 8);
        }
    });
}

TEST(Tables, StructuresHaveWhatTheirKindNeeds)
{
    forEachRowOfAll([](const row& field) {
        EXPECT_EQ(field.as == kind::checksum, field.sum.as != sumKind::none);
        EXPECT_EQ(field.as == kind::block || field.as == kind::repetition, !field.rows.empty());
        EXPECT_EQ(field.as == kind::list, field.entries.headerLength != 0);
        EXPECT_TRUE(field.as != kind::choice || !field.names.empty());
        EXPECT_EQ(field.as == kind::product, !field.factors.empty());
        EXPECT_TRUE(field.as != kind::product || field.length == 0);
        EXPECT_TRUE(field.as != kind::repetition || field.length != 0);
        EXPECT_TRUE(field.as != kind::list || !field.entries.lengthField.empty());
        EXPECT_TRUE(!field.mustFill || field.as == kind::repetition);
        EXPECT_LE(field.allowed.least, field.allowed.most);
        EXPECT_LE(field.decimals, mostDecimals);
    });
}

TEST(Tables, OneByteIsNotShownAsDigitsThatLookDecimal)
{
    // the rows of strings have no kind
    std::set<const row*> strings;
    forEachRowOfAll([&strings](const row& field) {
        for (const row& each : field.strings.known) {
            strings.insert(&each);
        }
    });
    forEachRowOfAll([&strings](const row& field) {
        EXPECT_FALSE(field.as == kind::bytes && field.length == 1 && strings.count(&field) == 0);
    });
}

TEST(Tables, ReferencesNameAFieldOfTheFormat)
{
    for (const format* each : formats()) {
        std::set<std::string_view> values;
        forEachRow(each->rows, [&values](const row& field) {
            if (!isStructure(field.as)) {
                values.insert(field.name);
            }
        });
        forEachRow(each->rows, [&](const row& field) {
            for (const std::string_view name : references(field)) {
                EXPECT_TRUE(name.empty() || values.count(name) == 1)
                    << each->name << ": " << field.label << " refers to '" << name << "'";
            }
        });
    }
}

TEST(Tables, ListsHaveTheirTypeAndLengthInTheHeader)
{
    forEachRowOfAll([](const row& field) {
        if (field.as != kind::list) {
            return;
        }
        for (const std::string_view name : {field.entries.typeField, field.entries.lengthField}) {
            EXPECT_TRUE(std::any_of(field.entries.header.begin(), field.entries.header.end(), [name](const row& each) {
                return each.name == name;
            })) << name;
        }
        for (const row& each : field.entries.header) {
            EXPECT_LE(each.at + each.length, field.entries.headerLength) << each.label;
        }
        for (const row& each : field.entries.known) {
            EXPECT_NE(noTag, each.tag) << each.label;
        }
    });
}

TEST(Tables, ChoicesHaveEachValueOnce)
{
    forEachRowOfAll([](const row& field) {
        std::set<std::uint64_t> values;
        for (const named& each : field.names) {
            EXPECT_TRUE(values.insert(each.value).second) << each.text;
            EXPECT_FALSE(each.text.empty());
        }
    });
}

} // namespace
} // namespace kest::contents::test
