/// The whole JSON of an error entry, as kestctl shows it: every name, in its order.
#include <nlohmann/json.hpp>

#include "tests/tools/program.h"

namespace kest::test
{
namespace
{

/// An entry with a part of every kind, as the log stores it. All numbers differ, so that none can take the place of
/// another unnoticed.
constexpr const char* storedEntry =
    R"({"id":11,"committed_ms":1714564800250,"created_ms":1714564799000,"severity":32,"event_type":9,"creator":4864,)"
    R"("return_code":2147488529,"commit_component":15,"action":8192,"process_id":14,"process":"some","incomplete":false,)"
    R"("srcs":[{"words":[11617279,318767112,4874,85,62,2,3,4294967295],"creator":16,"flags":17,"terminating_state":18}],)"
    R"("callouts":[{"priority":1,"procedure":4}],"fru_callouts":[{"priority":19,"fru":4660}],)"
    R"("software_errors":[{"component":4868,"return_code":2147488518,"module":20,"site":165,"reserved":21}],)"
    R"("user_details":[{"component":4864,"version":22,"subsection":7,"hex":"73696d3a612c4c"},)"
    R"({"component":23,"version":24,"subsection":25,"hex":"00ff"}],)"
    R"("traces":[{"buffer":"ring","text":"line\u00e9\n"}]})";

/// What `list` prints of it.
constexpr const char* shownHead =
    R"("id":11,"committed_ms":1714564800250,"committed":"2024-05-01T12:00:00.250Z",)"
    R"("created_ms":1714564799000,"created":"2024-05-01T11:59:59.000Z","severity":32,"event_type":9,)"
    R"("return_code":2147488529,"creator":4864,"process":"some","process_id":14,"commit_component":15,"action":8192,)"
    R"("incomplete":false,"device":"sim:a,L","reason":4874,"reason_text":"the device is absent")";

/// What `show` and `export` print in addition.
constexpr const char* shownLists =
    R"("srcs":[{"words":[11617279,318767112,4874,85,62,2,3,4294967295],"creator":16,"flags":17,)"
    R"("terminating_state":18,"module":8,"module_name":"KEST_detectDevice","reason":4874,)"
    R"("reason_text":"the device is absent","subsystem":85,"user_data":[62,2,3,4294967295]}],)"
    R"("callouts":[{"priority":1,"procedure":4,"text":"check the request and the software"}],)"
    R"("fru_callouts":[{"priority":19,"fru":4660}],)"
    R"("software_errors":[{"component":4868,"return_code":2147488518,"module":20,"site":165,"reserved":21}],)"
    R"("user_details":[{"component":4864,"version":22,"subsection":7,"name":"device text",)"
    R"("hex":"73696d3a612c4c","text":"sim:a,L"},)"
    R"({"component":23,"version":24,"subsection":25,"name":"","hex":"00ff"}],)"
    R"("traces":[{"buffer":"ring","text":"line\u00e9\n"}])";

class KestctlErrorJson : public MachineTest
{
protected:
    KestctlErrorJson()
    {
        std::filesystem::create_directories(machine() / "state");
        writeFile(machine() / "state/errors.spool", std::string(storedEntry) + "\n");
    }
    /// @return the output's JSON in one line, with the fields in their order
    [[nodiscard]] std::string json(const std::vector<std::string>& arguments) const
    {
        return nlohmann::ordered_json::parse(says(arguments)).dump(-1, ' ', true);
    }
};

TEST_F(KestctlErrorJson, OfAnEntryHasEveryField)
{
    const std::string whole = "{" + std::string(shownHead) + "," + shownLists + "}";
    EXPECT_EQ(whole, json({"errors", "show", "11", "--json"}));
    EXPECT_EQ(whole, json({"errors", "export"}));
}

TEST_F(KestctlErrorJson, OfTheListHasEveryFieldButTheLists)
{
    EXPECT_EQ("{\"entries\":[{" + std::string(shownHead) + "}]}", json({"errors", "list", "--json"}));
}

} // namespace
} // namespace kest::test
