#include "gp/SharedPiece.h"

#include "gp/GoneMemory.h"

SharedPiece* SharedPiece::withRoomFor(std::size_t size) {
    void* const memory = ::operator new(sizeof(SharedPiece) + size);
    return ::new (memory) SharedPiece(static_cast<char*>(memory) + sizeof(SharedPiece));
}

void SharedPiece::leave(void* object, std::size_t size) {
    SharedPiece* const piece = static_cast<SharedPiece**>(object)[-1];
    markGone(object, size);
    if (piece->living_.fetch_sub(1, std::memory_order_acq_rel) == 1) ::operator delete(piece);
}
