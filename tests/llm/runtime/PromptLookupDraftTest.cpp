#include "llm/runtime/PromptLookupDraft.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

namespace parlune::llm {
namespace {

using Tokens = std::vector<std::int32_t>;

TEST(PromptLookupDraft, ProposesWhatFollowedTheLongestSuffixFoundEarlier) {
    PromptLookupDraft draft(3, 1, 4);
    // "1 2 3" occurred before, followed by 9 8; "3" alone last occurred before 5.
    const Tokens context = {1, 2, 3, 9, 8, 7, 3, 5, 6, 1, 2, 3};
    EXPECT_EQ(draft.propose(context, 8), (Tokens{9, 8, 7, 3}));
    // Fewer when asked for fewer.
    PromptLookupDraft fresh(3, 1, 4);
    EXPECT_EQ(fresh.propose(context, 2), (Tokens{9, 8}));
}

TEST(PromptLookupDraft, TakesTheLatestOccurrenceAndStopsAtTheEndOfTheText) {
    PromptLookupDraft draft(2, 1, 8);
    // "4 5" occurs twice; the later one is followed by only the text's own end.
    EXPECT_EQ(draft.propose(Tokens{4, 5, 1, 4, 5, 2, 4, 5}, 8), (Tokens{2, 4, 5}));
}

TEST(PromptLookupDraft, ShorterSuffixesStandInAndNothingMatchesGivesNoGuess) {
    PromptLookupDraft draft(3, 2, 4);
    EXPECT_EQ(draft.propose(Tokens{7, 8, 1, 2, 7, 8}, 4), (Tokens{1, 2, 7, 8}));
    EXPECT_TRUE(draft.propose(Tokens{1, 2, 3, 4, 5, 6}, 4).empty());
    EXPECT_TRUE(draft.propose(Tokens{1, 1}, 0).empty()); // no room
    PromptLookupDraft unigrams(3, 1, 4);
    EXPECT_TRUE(unigrams.propose(Tokens{1}, 4).empty());
    EXPECT_TRUE(unigrams.propose(Tokens{}, 4).empty());
    EXPECT_EQ(unigrams.propose(Tokens{1, 1}, 4), (Tokens{1}));
}

TEST(PromptLookupDraft, GuessesGrowWhileTakenWholeAndShrinkToWhatWasTaken) {
    PromptLookupDraft draft(1, 1, 2);
    Tokens text = {10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 10};
    EXPECT_EQ(draft.propose(text, 16), (Tokens{11, 12}));
    // Both taken, then one more token: the next guess may be four long.
    text.insert(text.end(), {11, 12, 13});
    EXPECT_EQ(draft.propose(text, 16), (Tokens{14, 15, 16, 17}));
    EXPECT_EQ(draft.length(), 4);
    // Only the first of four taken: the next guess holds two.
    text.insert(text.end(), {14, 99});
    EXPECT_EQ(draft.length(), 4);
    draft.propose(text, 16);
    EXPECT_EQ(draft.length(), 2);
    // A shorter context is another text: back to the first length.
    PromptLookupDraft other(1, 1, 3);
    other.propose(Tokens{1, 2, 1}, 16);
    other.propose(Tokens{1, 2, 1, 7, 7}, 16); // guessed {2}, got 7: one more than taken
    EXPECT_EQ(other.length(), 1);
    other.propose(Tokens{3, 3}, 16);
    EXPECT_EQ(other.length(), 3);
}

TEST(PromptLookupDraft, GuessesThatFailWholeMakeItPauseLongerEachTime) {
    PromptLookupDraft draft(1, 1, 2);
    Tokens text = {1, 2, 3, 1};
    const auto next = [&](std::initializer_list<std::int32_t> more) {
        text.insert(text.end(), more);
        return draft.propose(text, 8);
    };
    EXPECT_EQ(draft.propose(text, 8), (Tokens{2, 3}));
    EXPECT_TRUE(next({50}).empty());    // nothing taken: one step without a guess
    EXPECT_EQ(next({1}), (Tokens{50})); // shrunk to one token
    EXPECT_TRUE(next({51}).empty());    // nothing taken again: two steps without
    EXPECT_TRUE(next({1}).empty());
    EXPECT_EQ(next({1}), (Tokens{1}));
    // A guess taken ends the pauses and lets the guesses grow again.
    EXPECT_TRUE(next({1, 9}).empty());    // no earlier 9
    EXPECT_EQ(next({1}), (Tokens{9, 1})); // up to the text's end
    EXPECT_EQ(draft.length(), 3);
}

TEST(PromptLookupDraft, RejectsMatchesOfNoTokens) {
    EXPECT_THROW(PromptLookupDraft(3, 0, 4), std::invalid_argument);
    EXPECT_THROW(PromptLookupDraft(1, 2, 4), std::invalid_argument);
    EXPECT_THROW(PromptLookupDraft(3, 1, 0), std::invalid_argument);
}

} // namespace
} // namespace parlune::llm
