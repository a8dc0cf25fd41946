#pragma once

// Notices a walk over foreign bytes that comes back to a state that it was in before, and so would never end.
// A local helper of one walk. It allocates nothing: it compares with one remembered state, and remembers the
// present one after 1, 2, 4, 8 ... steps.

template <class State>
class CycleWatch {
public:
    // `nowhere` is a state that the walk is never in.
    explicit CycleWatch(const State& nowhere) : remembered_(nowhere) {}

    // To be asked with the state before each step. A walk that repeats itself is noticed within a few rounds,
    // one that does not never is.
    bool isRepeated(const State& state) {
        if (state == remembered_) return true;
        if (++steps_ == limit_) {
            remembered_ = state;
            steps_ = 0;
            limit_ *= 2;
        }
        return false;
    }

private:
    State remembered_;
    unsigned steps_ = 0;
    unsigned limit_ = 1;
};
