// ring_loans.cpp - the memory behind rings that have packets in them.
//
// A ring is 400 KB, each packet goes behind the last one, and a page that was written stays. So a client that gets a
// packet now and then would cost a hundred pages in the end, while its ring is empty nearly always. Therefore a ring is
// lent memory when a packet is queued into it while it is empty. `send_queue` points into that memory from then on, else
// to the record's own ring, which nobody writes and which reads as zero.
//
// A few rings keep what they were lent when their packets were sent, for the next ones. Beyond these, a ring gives it
// back with its last packet. What was given back last is lent first, as the processor still has it in its caches.
//
// A loan has room for all slots behind one place of it, and for all before. A ring is put there such that the next
// packet stands at this place, whatever the number of its slot, and is put there again when the next one would be some
// slots away: what a client is sent packet by packet takes the same few pages always. Slots of packets that were sent
// long ago read as anything then.
#include "client_internal.h"

#include <algorithm>
#include <sys/mman.h>

namespace tarn::client {
namespace {

constexpr size_t  kLineBytes  = 64; // of the processor's caches
constexpr size_t  kLines      = 48;
constexpr size_t  kPlace      = CLIENT_SEND_SLOTS * sizeof(client_send_slot_t); // of the next packet in a loan
constexpr size_t  kLoanBytes  = whole_pages(2 * kPlace + kLines * kLineBytes);
constexpr int32_t kLoansMax   = CLIENT_MAX;
constexpr int32_t kMadeAtOnce = 16;
constexpr int32_t kKeptMax    = 128; // while more loans are out, rings that get empty give theirs back
constexpr int     kNearSlots  = 8;   // of the place and behind it; each takes a page

constinit std::atomic<char *> g_loans{nullptr};
constinit Shared<int32_t>     g_out = 0; // loans that rings have; written under g_loans_mutex

// The loans that no ring has. The last is lent first, and those in front have no pages.
constinit Mutex                   g_loans_mutex{};
constinit int32_t                 g_free[kLoansMax] GUARDED_BY(g_loans_mutex){};
constinit int32_t g_free_count    GUARDED_BY(g_loans_mutex) = 0;
constinit int32_t g_without_pages GUARDED_BY(g_loans_mutex) = 0;
constinit int32_t g_unused        GUARDED_BY(g_loans_mutex) = 0; // of those in front: not lent since the last look
constinit int32_t g_made          GUARDED_BY(g_loans_mutex) = 0;

struct Borrower {
    Shared<int32_t> index;      // of the record; kOutside while the loan is free
    Shared<uint8_t> was_active; // since the last look
};
constinit Borrower g_borrowers[kLoansMax]{};

char *loan_at(int32_t number)
{
    return g_loans.load(std::memory_order_relaxed) + static_cast<size_t>(number) * kLoanBytes;
}

// Of the loan that a ring is in, or -1.
int32_t loan_of(const client_send_slot_t *ring)
{
    const char *const loans  = g_loans.load(std::memory_order_relaxed);
    const auto        offset = reinterpret_cast<uintptr_t>(ring) - reinterpret_cast<uintptr_t>(loans);
    return loans && offset < kLoansMax * kLoanBytes ? static_cast<int32_t>(offset / kLoanBytes) : -1;
}

// As with blocks of records: only what is in use counts where the system counts what it promises.
void make_more() REQUIRES(g_loans_mutex)
{
    const int32_t count = std::min(kMadeAtOnce, kLoansMax - g_made);
    if (count == 0 || !reserved(g_loans, kLoansMax * kLoanBytes, PROT_NONE) ||
        mprotect(loan_at(g_made), static_cast<size_t>(count) * kLoanBytes, PROT_READ | PROT_WRITE) != 0)
        return;
    for (int32_t i = 0; i < count; ++i)
        g_free[g_free_count++] = g_made++;
    g_without_pages = g_free_count;
}

// -1: there is no memory for one more.
int32_t take_loan(int32_t borrower) EXCLUDES(g_loans_mutex)
{
    ScopedLock lock(g_loans_mutex);
    if (g_free_count == 0)
        make_more();
    if (g_free_count == 0)
        return -1;
    const int32_t number      = g_free[--g_free_count];
    g_without_pages           = std::min(g_without_pages, g_free_count);
    g_unused                  = std::min(g_unused, g_free_count);
    g_out                     = g_out + 1;
    g_borrowers[number].index = borrower;
    return number;
}

void give_loan_back(int32_t number) EXCLUDES(g_loans_mutex)
{
    ScopedLock lock(g_loans_mutex);
    g_borrowers[number].index = kOutside;
    g_free[g_free_count++]    = number;
    g_out                     = g_out - 1;
}

// The places of the loans differ, or all of them would use the same few lines of the caches.
client_send_slot_t *place_in(int32_t number)
{
    char *const place = loan_at(number) + kPlace + static_cast<size_t>(number) % kLines * kLineBytes;
    return reinterpret_cast<client_send_slot_t *>(place);
}

// So that the next packet stands at the place, or not far behind it.
void put_ring(mqtt_client_t &client, int32_t number) REQUIRES(client.send_lock)
{
    client_send_slot_t *const place = place_in(number);
    const int                 tail  = client.send_tail % CLIENT_SEND_SLOTS;
    client_send_slot_t *const next  = client.send_queue + tail;
    if (next < place || next >= place + kNearSlots)
        client.send_queue = place - tail;
    g_borrowers[number].was_active = 1;
}

void take_back(mqtt_client_t &client, int32_t number) REQUIRES(client.send_lock)
{
    client.send_queue = own_ring(index_of(&client));
    give_loan_back(number);
}

// From a ring that had no packet since the last look.
void take_from_idle(int32_t number)
{
    Borrower &borrower = g_borrowers[number];
    if (borrower.was_active) {
        borrower.was_active = 0;
        return;
    }
    const int32_t index = borrower.index;
    if (index == kOutside)
        return;
    const client_ref client(record_at(index)); // of whichever client has the record now
    ScopedLock       lock(client->send_lock);
    const bool       is_idle = client->send_head == client->send_tail && !side_at(index).flushing;
    if (is_idle && loan_of(client->send_queue) == number && !borrower.was_active)
        take_back(*client, number);
}

// For one at a time only, as a thread that sends a packet may wait for the mutex.
bool give_back_pages() EXCLUDES(g_loans_mutex)
{
    ScopedLock lock(g_loans_mutex);
    if (g_without_pages >= g_unused)
        return false;
    madvise(loan_at(g_free[g_without_pages++]), kLoanBytes, MADV_DONTNEED);
    return true;
}

} // namespace

void lend_ring(mqtt_client_t &client) noexcept
{
    const int32_t index  = index_of(&client);
    int32_t       number = loan_of(client.send_queue);
    if (number < 0 && index != kOutside && client.send_queue == own_ring(index)) // and not one that the client brought
        number = take_loan(index);
    if (number >= 0)
        put_ring(client, number);
}

void ring_is_empty(mqtt_client_t &client) noexcept
{
    if (g_out <= kKeptMax)
        return;
    if (const int32_t number = loan_of(client.send_queue); number >= 0)
        take_back(client, number);
}

bool free_lent_ring(const client_send_slot_t *ring, bool is_empty) noexcept
{
    const int32_t number = loan_of(ring);
    if (number < 0)
        return false;
    if (!is_empty) // the next borrower is not to find packets that are ready
        madvise(loan_at(number), kLoanBytes, MADV_DONTNEED);
    give_loan_back(number);
    return true;
}

void give_back_unused_rings() noexcept
{
    int32_t made;
    {
        ScopedLock lock(g_loans_mutex);
        made = g_made;
    }
    for (int32_t number = 0; g_out > 0 && number < made; ++number)
        take_from_idle(number);
    while (give_back_pages()) {}
    ScopedLock lock(g_loans_mutex);
    g_unused = g_free_count;
}

} // namespace tarn::client
