// The processes that a liveness sweep has looked up, in the order that decides which it finds
// again.
//
// A look-up compares with the last record, then sorts the records and searches them in halves, both
// with comp_chk_pid(), which says 0 for equal and 1 otherwise. That is no order: a record that is
// there may be missed and then stands twice. Which look-ups miss can be seen from outside, by the
// lines about dead processes, so it is exactly what the C library's merge sort and binary search
// make of such a function, without calling them:
//
// - A merge that takes the left head if the comparison is not above 0 puts the right half in front
//   of the left one when no record stands in both, so records that are all different are reversed.
//   A search in halves that is never told to go left looks at n/2, then at the middle of what lies
//   behind, and so on. So while no record stands twice, the records are an array and the direction
//   in which it is read.
// - Once one does, a left head is pulled in front of its equal on the right, and the records have
//   to be merged: what stands before that equal goes out first, then the left head. Parts without a
//   repetition are still reversed.
// - A process gets a number when it is seen for the first time, so that equal is a comparison of
//   numbers, and a process without one is known to be in no record.
#include "chk_pids.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "hash.h"

namespace kessard {
namespace {

constexpr int UNKNOWN = -1;
constexpr unsigned int BUCKETS = 16384; // a power of two

struct numbered_process {
    CHK_PID process;
    unsigned int bucket;
    int next; // in the bucket
};

numbered_process numbered[PTRC_HASH_SLOTS];
int numbered_count = 0;
int buckets[BUCKETS]; // the first process, plus 1; 0 for none

// The number of a process, and whether it was found alive.
using record = std::uint16_t;
constexpr record NUMBER = 0x3fff;
constexpr record ALIVE = 0x4000;
static_assert(PTRC_HASH_SLOTS <= NUMBER);

// While all are different they grow from the middle both ways; afterwards they fill one half, and
// are sorted into the other.
record records[2 * PTRC_HASH_SLOTS];
record* first = records + PTRC_HASH_SLOTS;
unsigned int j = 0; // how many
bool is_reversed = false;
bool stands_twice = false;

// Of the first n records: the last place whose process stands once more behind it.
int repeated[PTRC_HASH_SLOTS + 1];

unsigned int bucket_of(const CHK_PID& process) {
    const std::size_t length = strnlen(process.proc_nm, sizeof process.proc_nm);
    return (agt::get_hash_code(process.proc_nm, length) ^ static_cast<unsigned>(process.pid)) &
           (BUCKETS - 1);
}

int number_of(const CHK_PID& process, unsigned int bucket) {
    int number = buckets[bucket] - 1;
    while (number != UNKNOWN && comp_chk_pid(&process, &numbered[number].process) != 0)
        number = numbered[number].next;
    return number;
}

int give_number(const CHK_PID& process, unsigned int bucket) {
    numbered[numbered_count] = {process, bucket, buckets[bucket] - 1};
    buckets[bucket] = ++numbered_count;
    return numbered_count - 1;
}

record& nth_record(unsigned int nth) {
    return is_reversed ? first[j - 1 - nth] : first[nth];
}

void append(int number, char isalive) {
    if (is_reversed)
        --first;
    ++j;
    nth_record(j - 1) = static_cast<record>(number | (isalive == 0 ? 0 : ALIVE));
}

void bring_to_front() {
    if (is_reversed)
        std::reverse(first, first + j);
    std::copy_n(first, j, records);
    first = records;
    is_reversed = false;
}

// Notes the repetitions, for is_repeated().
void find_repeated() {
    static int last[PTRC_HASH_SLOTS]; // where each process stood last
    std::fill_n(last, numbered_count, UNKNOWN);
    repeated[0] = UNKNOWN;
    for (unsigned int i = 0; i < j; ++i) {
        int& before = last[first[i] & NUMBER];
        repeated[i + 1] = std::max(repeated[i], before);
        before = static_cast<int>(i);
    }
}

using eight = record __attribute__((vector_size(8 * sizeof(record))));

bool is_among(record number, const eight& some) {
    const auto is_equal = (some & NUMBER) == number;
    std::uint64_t halves[2];
    std::memcpy(halves, &is_equal, sizeof halves);
    return (halves[0] | halves[1]) != 0;
}

// Copies the records before the first one of this number, all when there is none; their count.
unsigned int copy_until(record number, const record* start, unsigned int count, record* out) {
    unsigned int i = 0;
    for (eight some; i + 8 <= count; i += 8) {
        std::memcpy(&some, start + i, sizeof some);
        if (is_among(number, some))
            break;
        std::memcpy(out + i, &some, sizeof some);
    }
    for (; i < count && (start[i] & NUMBER) != number; ++i)
        out[i] = start[i];
    return i;
}

void merge(const record* left, const record* right, const record* end, record* out) {
    const record* const middle = right;
    while (left < middle) {
        const auto rest = static_cast<unsigned>(end - right);
        const unsigned int run = copy_until(*left & NUMBER, right, rest, out);
        right += run;
        out += run;
        if (run == rest)
            break;
        *out++ = *left++;
    }
    out = std::copy(left, middle, out);
    std::copy(right, end, out);
}

// Sorts a part into `out`; both hold the same records before.
void merge_sort(record* out, record* in, unsigned int from, unsigned int count) {
    if (repeated[from + count] < static_cast<int>(from)) {
        std::reverse_copy(in + from, in + from + count, out + from);
        return;
    }
    const unsigned int half = count / 2;
    merge_sort(in, out, from, half);
    merge_sort(in, out, from + half, count - half);
    merge(in + from, in + from + half, in + from + count, out + from);
}

void sort_records() {
    if (!stands_twice) {
        is_reversed = !is_reversed;
        return;
    }
    find_repeated();
    record* const other = first == records ? records + PTRC_HASH_SLOTS : records;
    std::copy_n(first, j, other);
    merge_sort(other, first, 0, j);
    first = other;
}

// The record that the search in halves finds; nullptr when it finds none.
const record* search(int number) {
    for (unsigned int nth = j / 2; nth < j; nth = (nth + 1 + j) / 2)
        if ((nth_record(nth) & NUMBER) == number)
            return &nth_record(nth);
    return nullptr;
}

char isalive_in(record one) {
    return (one & ALIVE) == 0 ? 0 : 1;
}

} // namespace

int comp_chk_pid(const void* a, const void* b) {
    const auto* one = static_cast<const CHK_PID*>(a);
    const auto* other = static_cast<const CHK_PID*>(b);
    return one->pid == other->pid &&
                   std::strncmp(one->proc_nm, other->proc_nm, sizeof one->proc_nm) == 0
               ? 0
               : 1;
}

void clear_chk_pids() {
    while (numbered_count > 0)
        buckets[numbered[--numbered_count].bucket] = 0;
    first = records + PTRC_HASH_SLOTS;
    j = 0;
    is_reversed = false;
    stands_twice = false;
}

char isalive_of(const CHK_PID& wanted, char (*look_up)(const CHK_PID& process)) {
    if (j > 0 && comp_chk_pid(&wanted, &numbered[nth_record(j - 1) & NUMBER].process) == 0)
        return isalive_in(nth_record(j - 1));
    sort_records();
    const unsigned int bucket = bucket_of(wanted);
    int number = number_of(wanted, bucket);
    if (number == UNKNOWN) {
        number = give_number(wanted, bucket);
    } else if (const record* found = search(number); found != nullptr) {
        return isalive_in(*found);
    } else if (!stands_twice) {
        bring_to_front();
        stands_twice = true;
    }
    const char isalive = look_up(wanted);
    append(number, isalive);
    return isalive;
}

} // namespace kessard
