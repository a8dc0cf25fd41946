#include "bench/BareQueries.h"

#include "bench/QuickAgent.h"
#include "lab/AgentFrame.h"

#include <stdexcept>
#include <string>
#include <thread>

namespace bench {

BareQueries::BareQueries() : socket_(connectedToAgent()) {
    for (Slot& slot : slots_) {
        slot.owner = this;
        slot.number = static_cast<std::uint32_t>(&slot - slots_.data());
        sem_init(&slot.reply, 0, 0);
    }
    std::thread([this] { read(); }).detach();
}

void BareQueries::giveUp(std::size_t) { throw std::runtime_error("a bare query is lost"); }

void BareQueries::send(std::size_t number) {
    Slot& slot = slots_[number];
    if (slot.thread != pthread_t{}) pthread_detach(slot.thread);
    slot.answered = false;
    if (pthread_create(&slot.thread, nullptr, query, &slot) != 0)
        throw std::runtime_error("no thread can be made");
}

void* BareQueries::query(void* argument) {
    auto& slot = *static_cast<Slot*>(argument);
    BareQueries& owner = *slot.owner;
    const std::string frame = lab::agentFrame(lab::policyFrame, slot.number, questionBody);
    pthread_mutex_lock(&owner.sending_);
    static_cast<void>(::send(owner.socket_, frame.data(), frame.size(), 0));
    pthread_mutex_unlock(&owner.sending_);
    sem_wait(&slot.reply);
    // As the table of replies is looked at once more.
    pthread_mutex_lock(&owner.replies_);
    pthread_mutex_unlock(&owner.replies_);
    slot.answered = true;
    return nullptr;
}

void BareQueries::read() {
    std::string held;
    while (receiveMore(socket_, held)) {
        takeFrames(held, [this](std::uint32_t, std::uint32_t number) {
            if (number >= slots) return;
            pthread_mutex_lock(&replies_);
            sem_post(&slots_[number].reply);
            pthread_mutex_unlock(&replies_);
        });
    }
}

} // namespace bench
