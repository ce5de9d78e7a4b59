// SPDX-License-Identifier: Apache-2.0
#include "host/container/Announcements.h"

#include <utility>

namespace Engine {

// Each receiver handles it once, after everything that was sent to it before.
class Announcements::EndMessage final : public Framework::Message {
public:
    EndMessage(std::shared_ptr<std::atomic<std::uint64_t>> ended, std::uint64_t generation, int receivers)
        : ended(std::move(ended)), generation(generation), missing(receivers)
    {
    }

    int MessageHandle(void* /*target*/) override
    {
        if (missing.fetch_sub(1) == 1) {
            ended->store(generation);
        }
        return 0;
    }
    unsigned long EventCount() const override { return 0; }

private:
    std::shared_ptr<std::atomic<std::uint64_t>> ended;
    std::uint64_t generation;
    std::atomic<int> missing;
};

bool Announcements::IsAnnounced(int tid) const
{
    const auto found = generations.find(tid);
    return found != generations.end() && found->second == generation;
}

void Announcements::Add(int tid)
{
    std::uint64_t& last = generations[tid];
    announced += last != generation ? 1 : 0;
    last = generation;
}

bool Announcements::Remove(int tid)
{
    if (!IsAnnounced(tid)) {
        return false;
    }
    generations[tid] = generation - 1;
    --announced;
    return true;
}

std::vector<int> Announcements::EndGeneration(Loss loss)
{
    std::vector<int> stopped;
    for (const auto& [tid, last] : generations) {
        if (last == generation || loss == Loss::Possible) {
            stopped.push_back(tid);
        }
    }
    ++generation;
    announced = 0;
    return stopped;
}

std::shared_ptr<Framework::Message> Announcements::EndOfGeneration(int receivers) const
{
    return std::make_shared<EndMessage>(ended, generation, receivers);
}

void Announcements::ForgetStopped()
{
    const std::uint64_t now = ended->load();
    if (now == forgotten) {
        return;
    }
    forgotten = now;
    std::erase_if(generations, [now](const auto& item) { return item.second < now; });
}

}  // namespace Engine
