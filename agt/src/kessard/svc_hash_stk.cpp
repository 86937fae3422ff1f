// The index stacks of the service table.
#include "svc_hash_stk.h"

#include "index_stack.h"

namespace kessard {

int svc_hash_push(SVC_HASH_STK* stack, unsigned int index) {
    return agt::stack_push(*stack, index);
}
int svc_hash_pop(SVC_HASH_STK* stack) {
    return agt::stack_pop(*stack);
}
int svc_hash_popv(SVC_HASH_STK* stack, unsigned int index) {
    return agt::stack_popv(*stack, index);
}
void svc_hash_show(const SVC_HASH_STK* stack) {
    agt::stack_show(*stack);
}

} // namespace kessard
