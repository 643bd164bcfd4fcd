#include "guarded.h"

static thread_local GUARDED_CALL_S *g_pCall = nullptr;

void GUARDED_SetCall(GUARDED_CALL_S *pCall)
{
    g_pCall = pCall;
}

void GUARDED_NoteBegun()
{
    if (g_pCall != nullptr && !g_pCall->bBegun)
    {
        g_pCall->bBegun = true;
        g_pCall->ps32Begun->fetch_add(1, std::memory_order_relaxed);
    }
}
