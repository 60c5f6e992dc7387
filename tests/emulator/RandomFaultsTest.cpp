// The emulator's random faults: their text form, the seeded draws, and which requests each kind
// of fault hits over the wire.
#include <tests/emulator/EmulatorCalls.h>
#include <tools/emulator/CloudEmulator.h>

#include <gtest/gtest.h>

namespace tavix::emulator {
namespace {

using namespace calls;
using boost::beast::http::verb;

RandomFaults parsed(std::string const& text)
{
    RandomFaults faults;
    std::string error;
    EXPECT_TRUE(parseRandomFaults(text, faults, error)) << text << ": " << error;
    return faults;
}

TEST(RandomFaults, TextFormReadsWhatItWritesAndRefusesBadItemsWhole)
{
    RandomFaults const faults =
        parsed("drop=0.5,stall=0.25,stall-ms=40,5xx=1,401=0,expired-url=0.125,drop-after-body=0.0625,"
               "spare=locations,seed=18446744073709551615");
    EXPECT_EQ(faults.drop, 0.5);
    EXPECT_EQ(faults.stall, 0.25);
    EXPECT_EQ(faults.stallMax.count(), 40);
    EXPECT_EQ(faults.serverError, 1.0);
    EXPECT_EQ(faults.expiredUrl, 0.125);
    EXPECT_EQ(faults.dropAfterBody, 0.0625);
    EXPECT_EQ(faults.spare, "locations");
    EXPECT_EQ(faults.seed, 18446744073709551615u);
    EXPECT_EQ(formatRandomFaults(parsed(formatRandomFaults(faults))), formatRandomFaults(faults));
    EXPECT_EQ(formatRandomFaults(parsed("")), formatRandomFaults(RandomFaults{}));

    for (std::string const bad :
         {"drop=1.5", "5xx=-0.1", "401=often", "stall-ms=-1", "seed=0x10", "jitter=0.1", "drop", "drop=nan"}) {
        RandomFaults kept;
        kept.drop = 0.75;
        std::string error;
        EXPECT_FALSE(parseRandomFaults("stall=0.5," + bad, kept, error)) << bad;
        EXPECT_FALSE(error.empty()) << bad;
        EXPECT_EQ(kept.drop, 0.75) << bad;
        EXPECT_EQ(kept.stall, 0.0) << bad;
    }
}

TEST(FaultDice, SameSeedSameDrawsAtTheRatesAsked)
{
    RandomFaults const faults = parsed("drop=0.1,stall=0.2,stall-ms=30,5xx=0.3,expired-url=0,seed=42");
    FaultDice first(faults), second(faults);
    int const draws = 20000;
    for (int i = 0; i < draws; ++i) {
        auto const a = first.transportFault(), b = second.transportFault();
        ASSERT_EQ(a.has_value(), b.has_value());
        if (a) {
            ASSERT_EQ(a->kind, b->kind);
            ASSERT_EQ(a->delay, b->delay);
            ASSERT_LE(a->delay.count(), 30);
        }
        ASSERT_EQ(first.roll(FaultDice::serverError), second.roll(FaultDice::serverError));
        ASSERT_FALSE(first.roll(FaultDice::expiredUrl));
    }
    FaultDice::Counts const counts = first.injected();
    EXPECT_EQ(counts, second.injected());
    // A stall is drawn only when no drop was: 0.2 of the remaining 0.9.
    double const expected[FaultDice::kindCount] = {0.1, 0.18, 0.3, 0, 0, 0};
    for (int kind = 0; kind < FaultDice::kindCount; ++kind)
        EXPECT_NEAR(double(counts[kind]) / draws, expected[kind], 0.015) << FaultDice::name(FaultDice::Kind(kind));

    first.configure(parsed("5xx=1,seed=1"));
    EXPECT_EQ(first.injected(), FaultDice::Counts{});
    EXPECT_FALSE(first.transportFault());
    EXPECT_TRUE(first.roll(FaultDice::serverError));
}

struct WireCase {
    char const* faults;
    verb method;
    char const* path; // below the base URL; "{storage}" for the storage service's
    std::string body;
    unsigned status; // 0: the connection closes unanswered
    FaultDice::Kind kind;
    std::uint64_t injected;
};

TEST(RandomFaultsOnTheWire, EachKindHitsTheRequestsItIsForAndControlRequestsNever)
{
    std::string const tokenForm = "grant_type=client_credentials&client_id=soak";
    WireCase const cases[] = {
        {"drop=1", verb::get, "/account/v1/rest/accounts/current", {}, 0, FaultDice::drop, 1},
        {"drop=1", verb::get, "/_emulator/faults", {}, 200, FaultDice::drop, 0},
        {"stall=1,stall-ms=20", verb::get, "/account/v1/rest/accounts/current", {}, 200, FaultDice::stall, 1},
        {"5xx=1", verb::get, "/account/v1/rest/accounts/current", {}, 503, FaultDice::serverError, 1},
        {"5xx=1", verb::post, "/oauth/token", tokenForm, 503, FaultDice::serverError, 1},
        {"401=1", verb::get, "/account/v1/rest/accounts/current", {}, 401, FaultDice::unauthorized, 1},
        {"401=1", verb::post, "/oauth/token", tokenForm, 200, FaultDice::unauthorized, 0},
        {"expired-url=1", verb::get, "/account/v1/rest/accounts/current", {}, 200, FaultDice::expiredUrl, 0},
        {"drop-after-body=1", verb::get, "/account/v1/rest/accounts/current", {}, 200, FaultDice::dropAfterBody, 0},
        {"drop=1,spare=locations", verb::get, "/locator/rest/locations/ACCOUNT", {}, 200, FaultDice::drop, 0},
        {"5xx=1,spare=locations", verb::get, "/locator/rest/locations/ACCOUNT", {}, 200, FaultDice::serverError, 0},
        {"401=1,spare=locations", verb::get, "/locator/rest/locations/ACCOUNT", {}, 200, FaultDice::unauthorized, 0},
        {"401=1,spare=locations", verb::get, "/account/v1/rest/accounts/current", {}, 401, FaultDice::unauthorized, 1},
    };
    for (WireCase const& c : cases) {
        SCOPED_TRACE(std::string(c.faults) + " " + c.path);
        EmulatorConfig config;
        config.randomFaults = parsed(c.faults);
        CloudEmulator cloud(config);
        Headers headers = bearer(kDefaultToken);
        if (c.method == verb::post) headers.push_back({"Content-Type", "application/x-www-form-urlencoded"});
        Reply const reply = exchange(c.method, cloud.baseUrl() + c.path, c.body, headers);
        EXPECT_EQ(reply.status, c.status) << reply.body;
        EXPECT_EQ(bool(reply.ec), c.status == 0) << reply.ec.message();
        EXPECT_EQ(cloud.injectedFaults()[c.kind], c.injected);
    }
}

TEST(RandomFaultsOnTheWire, AnExpiredUploadUrlIsRefusedAndAn503UploadKeepsNoBody)
{
    EmulatorConfig config;
    config.randomFaults = parsed("expired-url=1");
    CloudEmulator cloud(config);
    Headers const json = {{"Authorization", std::string("Bearer ") + kDefaultToken},
                          {"Content-Type", "application/json"}};
    Headers const octets = {{"Content-Type", "binary/octet-stream"}};
    auto storeUrl = [&] {
        Reply const stored =
            exchange(verb::post, cloud.storageUrl() + "/files", R"({"resource": {"name": "p/o"}})", json);
        EXPECT_EQ(stored.status, 200u) << stored.body;
        return stored.json["url"].asString();
    };

    EXPECT_EQ(exchange(verb::put, storeUrl(), "body", octets).status, 403u);
    EXPECT_EQ(cloud.injectedFaults()[FaultDice::expiredUrl], 1u);

    cloud.setRandomFaults({});
    std::string const url = storeUrl();
    cloud.setRandomFaults(parsed("5xx=1"));
    EXPECT_EQ(exchange(verb::put, url, "body", octets).status, 503u);
    for (StoredObject const& object : cloud.objects()) EXPECT_FALSE(object.uploaded) << object.id;
}

TEST(RandomFaultsOnTheWire, ControlInterfaceSetsThemAndCountsWhatWasGiven)
{
    CloudEmulator cloud;
    std::string const faults = cloud.baseUrl() + "/_emulator/faults";
    EXPECT_EQ(exchange(verb::post, faults, "5xx=2").status, 400u);
    ASSERT_EQ(exchange(verb::post, faults, "5xx=1,seed=9").status, 200u);
    EXPECT_EQ(exchange(verb::get, cloud.baseUrl() + "/geo", {}, bearer(kDefaultToken)).status, 503u);

    Reply const report = exchange(verb::get, faults);
    ASSERT_EQ(report.status, 200u) << report.body;
    EXPECT_EQ(report.json["faults"].asString(), formatRandomFaults(parsed("5xx=1,seed=9")));
    EXPECT_EQ(report.json["injected"]["5xx"].asUInt64(), 1u);
    EXPECT_EQ(report.json["injected"]["drop"].asUInt64(), 0u);
}

} // namespace
} // namespace tavix::emulator
