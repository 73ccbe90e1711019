// A whole life of an instance, whatever befalls it: a consumer that knows what it wants and does not give
// up, a component that answers, and the clock.  An engine brings the faults and asks at the end whether all
// is well again.
//
// The consumer does what the header advises.  It repeats requests that were refused, makes a new instance
// where none could be had or its timer service is missing, and has the component come again when the
// one-second timer could not be started; remedies counts how often the last two were needed.
#ifndef PEGEIR_TESTS_PLAY_HPP
#define PEGEIR_TESTS_PLAY_HPP

#include <chrono>
#include <random>

#include <pegeir/sim_component.hpp>

#include "support/driver.hpp"

namespace pegeir::tests {

struct PlayOptions {
    uint32_t items = 12;
    size_t keyLen = 1900;          // with which an upload of 12 items takes three messages
    bool hostile = false;          // the callbacks do whatever the contract lets them do
    bool silent = false;           // an instance without a log function, on which every report copes
    uint64_t seed = 1;             // of what is left to chance
    uint32_t firstNumber = 0;      // transaction and sequence numbers of both sides begin behind it
    uint32_t firstSecond = 1000;   // of the clock
    sim::Liberties liberties = {}; // of the platform
};

class Play {
public:
    explicit Play(const PlayOptions &someOptions);

    // ---- What happens, in seconds or at once ----
    void Second();
    void Story();                     // 40 seconds in which everything occurs
    void Want(uint32_t number);       // subscribes the item of that number
    void GiveUp(uint32_t number);     // unsubscribes it
    void StartOver(uint32_t downFor); // the component ends and is there again after so many seconds
    void ReadPage(uint32_t bufferLen, uint32_t restart = 0);

    // ---- What is left of it.  All return what is wrong, or nothing. ----

    // Lets everything settle and compares both sides: the instance is ready, it holds no request and
    // the component exactly the items that are wanted, and the consumer saw each record of the last
    // download once and in order.  slowest is raised to the seconds that it took.
    std::string Settle(uint32_t mostSeconds);
    // Runs a verification pass in which everything goes well, and compares again.
    std::string Verify(uint32_t mostSeconds);
    // All of it, as far as nothing is wrong.
    std::string Finish(uint32_t mostSeconds, bool verify = true);
    // Ends the instance, and tells of leaks, violations and whatever was noticed on the way.
    std::string End();

    [[nodiscard]] uint32_t Random(uint32_t below) { return static_cast<uint32_t>(random() % below); }

    PlayOptions options;
    sim::World world;
    sim::Component component;
    std::optional<Driver> d;
    std::set<uint32_t> wanted;
    bool agrees = true;       // to verification passes
    bool mayLackData = false; // memory was short, which can cost an item its data bytes
    uint32_t boundaries = 0;  // ndpi messages delivered to either side
    uint32_t startOverAt = 0; // the one before which the component ends and is there again; 0: none
    uint32_t remedies = 0;
    uint32_t slowest = 0;

private:
    void Create();
    void Remedy();
    void Up();
    void Boundary();
    void Look(); // for broken invariants
    bool Request(uint32_t number);
    [[nodiscard]] Item ItemOf(uint32_t number) const;
    uint32_t Pack();
    uint32_t OnEvent(uint32_t code);
    void Misbehave();
    [[nodiscard]] bool IsQuiet() const;
    [[nodiscard]] std::string Difference() const;

    std::mt19937_64 random;
    std::set<uint32_t> owed; // refused requests
    uint32_t packed = 0;     // last item of the collection under way
    uint32_t requesting = 0; // item of the request under way
    uint32_t downFor = 1;    // seconds until the component is there, 0 while it is
    uint32_t lastCode = 9;   // of the consumer's events
    uint32_t failedInits = 0;
    bool misbehaving = false;
    std::string broken;
};

// The number in an environment variable, 0 without one.
[[nodiscard]] uint32_t FromEnvironment(const char *name);
[[nodiscard]] uint32_t MillisecondsSince(std::chrono::steady_clock::time_point begin);

} // namespace pegeir::tests

#endif
