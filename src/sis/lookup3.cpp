#include "sis/lookup3.h"

#include <bit>
#include <cstddef>

namespace {

constexpr std::uint32_t START = 0xdeadbeef;

struct State {
    std::uint32_t a;
    std::uint32_t b;
    std::uint32_t c;

    // Reversible, and every bit of the input reaches every word within a few rounds.
    void mix() {
        step(&a, c, &c, b, 4);
        step(&b, a, &a, c, 6);
        step(&c, b, &b, a, 8);
        step(&a, c, &c, b, 16);
        step(&b, a, &a, c, 19);
        step(&c, b, &b, a, 4);
    }

    void finish() {
        settle(&c, b, 14);
        settle(&a, c, 11);
        settle(&b, a, 25);
        settle(&c, b, 16);
        settle(&a, c, 4);
        settle(&b, a, 14);
        settle(&c, b, 24);
    }

private:
    static void step(std::uint32_t* word, std::uint32_t source, std::uint32_t* grown, std::uint32_t addend, int turn) {
        *word = (*word - source) ^ std::rotl(source, turn);
        *grown += addend;
    }
    static void settle(std::uint32_t* word, std::uint32_t source, int turn) {
        *word = (*word ^ source) - std::rotl(source, turn);
    }
};

// Up to 12 bytes as three little-endian words, missing ones as zero. Byte by byte: whole words would be read past the
// end.
void addBytes(State* state, std::string_view bytes) {
    std::uint32_t words[3] = {};
    for (std::size_t i = 0; i < bytes.size(); ++i)
        words[i / 4] |= static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[i])) << (8 * (i % 4));
    state->a += words[0];
    state->b += words[1];
    state->c += words[2];
}

State begin(std::uint32_t bytes, std::uint32_t initial) {
    const std::uint32_t word = START + bytes + initial;
    return {word, word, word};
}

}  // namespace

std::uint32_t hashlittle(std::string_view key, std::uint32_t initial) {
    constexpr std::size_t ROUND = 12;
    State state = begin(static_cast<std::uint32_t>(key.size()), initial);
    for (; key.size() > ROUND; key.remove_prefix(ROUND)) {
        addBytes(&state, key.substr(0, ROUND));
        state.mix();
    }
    if (key.empty())
        return state.c;
    addBytes(&state, key);
    state.finish();
    return state.c;
}

std::uint32_t hashword(std::span<const std::uint32_t> words, std::uint32_t initial) {
    constexpr std::size_t ROUND = 3;
    State state = begin(static_cast<std::uint32_t>(words.size() * sizeof(std::uint32_t)), initial);
    const auto add = [&state](std::span<const std::uint32_t> some) {
        state.a += some[0];
        state.b += some.size() > 1 ? some[1] : 0;
        state.c += some.size() > 2 ? some[2] : 0;
    };
    for (; words.size() > ROUND; words = words.subspan(ROUND)) {
        add(words.first(ROUND));
        state.mix();
    }
    if (words.empty())
        return state.c;
    add(words);
    state.finish();
    return state.c;
}
