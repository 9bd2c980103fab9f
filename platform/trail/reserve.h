// A way to the audit log that is kept open, for when the process can open no more.
#ifndef MERIDON_TRAIL_RESERVE_H
#define MERIDON_TRAIL_RESERVE_H

namespace trail {

// Gives the kept socket to one session at a time; others wait for it, a second at most. -1: there is none, or it isn't free.
int take_reserve();
void give_reserve_back();

} // namespace trail

#endif
