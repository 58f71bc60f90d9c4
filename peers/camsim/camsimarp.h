// The board's ARP table (<board>/proc/net/arp) as a simulated camera needs it: the hub tells
// cameras apart by the MAC behind the peer address of a connection, so every camera's loopback
// address must have its line there. Lines are written in the kernel's layout on "ra1", the
// camera network, and the table is replaced atomically (a temporary file renamed over it) under
// a lock file, so the hub never reads half a table and several simulators may share a board.
#pragma once

#include <string>

namespace camsim {

// The table's line for a camera: address, HW type 0x1, flags 0x2, the MAC with colons (lower
// case), mask "*", device "ra1".
std::string ArpLine(const std::string& ip, const std::string& mac);

// Puts the camera's line into the board's table, replacing lines of the same address or MAC;
// keeps the heading and every other line (a missing table is created with its heading).
// ip: dotted IPv4; mac: twelve hexadecimal digits, colons allowed. 0, or -1 with *error set.
int SetArpEntry(const std::string& board, const std::string& ip, const std::string& mac,
                std::string* error);
// Removes the lines of that address. 0, or -1 with *error set.
int RemoveArpEntry(const std::string& board, const std::string& ip, std::string* error);

}  // namespace camsim
