// SPDX-License-Identifier: BSD-2-Clause
// The receiving end of a message queue, whatever its peers put on it. A real queue; two real processes in whose name the
// records come; a thread that acts for the first of them where one has to answer.
#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/shm.h>
#include <unistd.h>

#include "Misc/buffer.h"
#include "Misc/ipcq.h"

#include "fuzz/fuzzing.h"
#include "tests/support/raw_queue_peer.h"

using fuzzing::Input;
using namespace testing_support;

namespace {

const short LastEvent = 30000; // ends an input
const long FlushTag = 12345;   // of a message to the partner's thread

struct Receiver : IPCQBase {
    explicit Receiver(int qid) : IPCQBase("receiver") { MyQueueID = qid; }
    short is_a_server() override { return 1; }
    long Sender() const { return SendersPID; }
};

struct Message {
    long type;
    std::string text;
};

// The first peer of the receiver: it answers every acknowledgement with the same messages.
class Partner {
public:
    Partner(int queueID, long partnerPID) : queue(queueID), channel(AckChannel(partnerPID, getpid()))
    {
        std::thread([this] { Run(); }).detach();
    }
    void SetAnswer(std::vector<Message> messages)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        answer = std::move(messages);
    }
    // Waits until what was acknowledged so far has been answered.
    void Flush()
    {
        std::unique_lock<std::mutex> lock(mutex);
        flushed = false;
        FUZZ_CHECK(SendRaw(queue, channel, &FlushTag, sizeof FlushTag) == 0);
        changed.wait(lock, [this] { return flushed; });
    }

private:
    void Run()
    {
        RawMessage raw;
        for (ssize_t n; (n = msgrcv(queue, &raw, sizeof raw.text, channel, 0)) >= 0 || errno == EINTR;) {
            if (n < 0)
                continue;
            const std::lock_guard<std::mutex> lock(mutex);
            if (n == sizeof FlushTag)
                flushed = true;
            else
                for (const Message& message : answer)
                    SendRaw(queue, message.type, message.text.data(), message.text.size(), IPC_NOWAIT);
            changed.notify_one();
        }
    }

    int queue;
    long channel;
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Message> answer;
    bool flushed = false;
};

struct World {
    int queue = msgget(IPC_PRIVATE, IPC_CREAT | 0600);
    long first = fuzzing::IdleProcess();
    long second = fuzzing::IdleProcess();
    Partner& partner = *new Partner(queue, first); // its thread lives as long as the process
    int segment = -1;

    World() { FUZZ_CHECK(queue >= 0); }
    ~World() { msgctl(queue, IPC_RMID, nullptr); }
};

World& TheWorld()
{
    static World world;
    return world;
}

std::string TextOf(const IPCQMessage& message)
{
    return std::string(reinterpret_cast<const char*>(&message) + 4,
                       300 + static_cast<size_t>(std::clamp(message.msg_data_len, 0, 1700)));
}

// A message with any header, or of any bytes.
std::string AnyText(Input& in, bool mayTransfer)
{
    World& world = TheWorld();
    if (in.Below(8) == 0) {
        std::string text = in.Run() + in.Run();
        text.resize(text.size() % 2 == 0 ? text.size() : 300 + text.size());
        const int32_t sender = static_cast<int32_t>(world.second);
        if (text.size() >= 300) {
            std::memcpy(&text[20], &sender, sizeof sender);
            std::memset(&text[280], 0, sizeof(int16_t)); // nobody would ever carry the event on
        }
        return text;
    }
    const long senders[] = {world.first, world.second, world.second, getpid(), 0, -5};
    IPCQMessage message = Event(in.Number<int16_t>(), senders[in.Below(6)], in.Run());
    if (message.event == LastEvent)
        message.event = 0;
    if (in.Flag())
        message.event = in.Flag() ? MoreData : Ack;
    if (in.Below(4) == 0)
        message.alloc_data_length = in.Flag() ? in.Number<int32_t>() : in.Number<int16_t>();
    if (in.Below(4) == 0)
        message.parts_left = in.Flag() ? in.Number<int16_t>() : static_cast<int16_t>(in.Below(4));
    if (in.Below(4) == 0)
        message.curr_data_offset = in.Flag() ? in.Number<int32_t>() : in.Number<int16_t>();
    if (in.Below(8) == 0) {
        message.shmem_id = in.Flag() ? world.segment : in.Number<int32_t>();
        message.shmem_size = in.Flag() ? in.Number<int32_t>() : in.Byte();
    }
    if (message.senders_pid != world.first || !mayTransfer)
        message.parts_left = std::min<int16_t>(message.parts_left, 0);
    std::string text = TextOf(message);
    if (in.Below(8) == 0) {
        const int32_t length = in.Number<int32_t>();
        std::memcpy(&text[296], &length, sizeof length);
    }
    if (in.Below(8) == 0) // a text without its end
        std::fill(text.begin(), text.begin() + in.Byte(), 'x');
    if (in.Below(8) == 0)
        text.resize(in.Number<uint16_t>() % 2100);
    return text;
}

void Put(long type, const std::string& text)
{
    SendRaw(TheWorld().queue, type, text.data(), text.size(), IPC_NOWAIT); // a full queue takes no more
}

long AnyChannel(Input& in)
{
    const World& world = TheWorld();
    const long self = getpid();
    const long channels[] = {self, self, self, self, DataChannel(world.first, self), DataChannel(world.second, self)};
    return channels[in.Below(6)];
}

// An event of several blocks, of which the first goes on the receiver's channel and the others come in any order.
std::string PutSoundEvent(Input& in)
{
    World& world = TheWorld();
    const std::size_t size = in.Number<uint16_t>() % 3000, blockSize = 100 + in.Number<uint16_t>() % 1600;
    std::string data = in.Bytes(size);
    data.resize(size, 'd');
    std::vector<Message> answer;
    const int parts = static_cast<int>(size / blockSize);
    for (int i = 0; i <= parts; i++) {
        const std::size_t offset = static_cast<std::size_t>(i) * blockSize;
        IPCQMessage block = Event(i == 0 ? 5 : MoreData, world.first, data.substr(offset, blockSize));
        block.alloc_data_length = static_cast<int32_t>(size);
        block.parts_left = static_cast<int16_t>(parts - i);
        block.curr_data_offset = static_cast<int32_t>(offset);
        if (i == 0)
            Put(getpid(), TextOf(block));
        else
            answer.push_back({DataChannel(world.first, getpid()), TextOf(block)});
    }
    for (std::size_t i = answer.size(); i > 1; i--)
        std::swap(answer[i - 1], answer[in.Byte() % i]);
    world.partner.SetAnswer(std::move(answer));
    return data;
}

void PutAnything(Input& in)
{
    World& world = TheWorld();
    std::vector<Message> answer;
    bool mayTransfer = true;
    while (!in.IsAtEnd() && answer.size() < 10) {
        if (in.Flag()) {
            const long channel = AnyChannel(in);
            Put(channel, AnyText(in, mayTransfer));
            mayTransfer = false;
        } else {
            const long channel = in.Below(8) == 0 ? AnyChannel(in) : DataChannel(world.first, getpid());
            answer.push_back({channel, AnyText(in, true)});
        }
    }
    IPCQMessage misfit = Event(MoreData, world.first); // ends a transfer that goes on
    misfit.parts_left = -1;
    answer.push_back({DataChannel(world.first, getpid()), TextOf(misfit)});
    world.partner.SetAnswer(std::move(answer));
}

// Receives until the last event, which always comes.
void ReceiveAll(Receiver& receiver, long from, const std::string* sound)
{
    Buffer data;
    bool came = sound == nullptr;
    for (short event = 0; event != LastEvent;) {
        short status, response, ack;
        const short code = receiver.IPCReceive(event, from, -1, data, status, response, ack);
        if (sound != nullptr && event == 5) {
            FUZZ_CHECK(code == 0 && data.Size() == sound->size());
            FUZZ_CHECK(sound->empty() ||
                       std::memcmp(static_cast<const void*>(data), sound->data(), sound->size()) == 0);
            came = true;
        }
        if (code != 0 && event == LastEvent)
            event = 0;
    }
    FUZZ_CHECK(came);
}

void EmptyQueue()
{
    const World& world = TheWorld();
    RawMessage raw;
    while (msgrcv(world.queue, &raw, sizeof raw.text, 0, IPC_NOWAIT | MSG_NOERROR) >= 0) {
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzzing::NameProgram();
    TheWorld();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    Input in(data, size);
    World& world = TheWorld();
    world.segment = shmget(IPC_PRIVATE, 64, IPC_CREAT | 0600);
    {
        Receiver receiver(world.queue);
        receiver.SetReceiveTimeOut(20);
        receiver.SetTransferTimeOut(20);
        const unsigned mode = in.Below(4);
        std::string sound;
        if (mode == 0)
            sound = PutSoundEvent(in);
        else
            PutAnything(in);
        Put(getpid(), TextOf(Event(LastEvent, world.second)));
        ReceiveAll(receiver, mode == 3 ? world.second : 0, mode == 0 ? &sound : nullptr);
    }
    world.partner.Flush();
    EmptyQueue();
    shmctl(world.segment, IPC_RMID, nullptr);
    return 0;
}
