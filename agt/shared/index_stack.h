// The index stacks of the shared hash tables: `top` entries in idx[], of which other processes may
// have made anything, so `top` is checked against the capacity before it is used.
//
// Whoever changes a stack holds the table's semaphore. Who only reads may do without, so a push
// stores `top` with release order and stack_top() loads it with acquire order: an index below it,
// and the entry that was filled before, are seen as they were then. An entry taken off meanwhile
// may still be read; its slot stays where it is.
#pragma once

#include <algorithm>
#include <type_traits>

#include "log_printf.h"
#include "shared_field.h"

namespace agt {

template <class Stack>
inline constexpr unsigned int stack_capacity = std::extent_v<decltype(Stack::idx)>;

// Entries of the stack, as they stand there.
template <class Stack> unsigned int stack_top(const Stack& stack) {
    return shared_load(stack.top, std::memory_order_acquire);
}

// Entries of the stack, at most its capacity.
template <class Stack> unsigned int stack_size(const Stack& stack) {
    return std::min(stack_top(stack), stack_capacity<Stack>);
}

// Puts an index on top; the new number of entries, or -1 when the stack is full.
template <class Stack> int stack_push(Stack& stack, unsigned int index) {
    const unsigned int top = shared_load(stack.top);
    if (top >= stack_capacity<Stack>)
        return -1;
    shared_store(stack.idx[top], index);
    shared_store(stack.top, top + 1, std::memory_order_release);
    return static_cast<int>(top + 1);
}

// Takes the index on top; -1 when the stack is empty.
template <class Stack> int stack_pop(Stack& stack) {
    const unsigned int top = shared_load(stack.top);
    if (top == 0 || top > stack_capacity<Stack>)
        return -1;
    shared_store(stack.top, top - 1);
    return static_cast<int>(shared_load(stack.idx[top - 1]));
}

// Removes an index from anywhere: the last entry takes its place and leaves -1 behind. The index,
// or -1 when the stack does not hold it.
template <class Stack> int stack_popv(Stack& stack, unsigned int index) {
    const unsigned int top = stack_size(stack);
    for (unsigned int i = 0; i < top; ++i) {
        if (stack.idx[i] != index)
            continue;
        shared_store(stack.idx[i], shared_load(stack.idx[top - 1]));
        shared_store(stack.idx[top - 1], ~0u);
        shared_store(stack.top, top - 1);
        return static_cast<int>(index);
    }
    return -1;
}

// Fills the stack with 0, 1, ... up to its capacity, so that the highest index is handed out first.
template <class Stack> void stack_fill(Stack& stack) {
    for (unsigned int i = 0; i < stack_capacity<Stack>; ++i)
        stack.idx[i] = i;
    shared_store(stack.top, stack_capacity<Stack>);
}

// Writes the entries to the log.
template <class Stack> void stack_show(const Stack& stack) {
    const unsigned int top = stack_size(stack);
    const log_batch batch;
    log_printf("total : %d\n", static_cast<int>(shared_load(stack.top)));
    for (unsigned int i = 0; i < top; ++i)
        log_printf("[%d] array_idx#%d\n", static_cast<int>(i),
                   static_cast<int>(shared_load(stack.idx[i])));
}

} // namespace agt
