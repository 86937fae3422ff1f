// The bare works that need no connection.
#pragma once

// Creates or opens the segments, given as pairs of a key and a size, and attaches them; writes to
// every byte of them when `touch` is set. Prints a line and stays.
void attach_objects(bool touch, char** keys_and_sizes);

// Waits as often as the daemon's threads do, without anything in between. Prints a line and stays.
void wait_without_work();
