/*
 * The items that the reference ND component serves, and the data records it sends for them.
 *
 * The library passes keys and records through untouched; this header is the agreement between the
 * component and its consumers.  All numbers are big-endian, nothing is padded.
 *
 * Keys
 *   key     := ND_DATA_KEY_INTERFACE, length 4: u32 ifindex, 0 for every interface
 *            | ND_DATA_KEY_SYNTHETIC, length 4: u32 index of a synthetic item, 0xFFFFFFFF for all
 *
 * Data types of an interface key
 *   ND_DATA_LINK          the interface itself
 *   ND_DATA_RA_INTERVAL   its router-advertisement intervals
 *   ND_DATA_NEIGHBOUR     its IPv6 neighbours
 * Data type of a synthetic key
 *   ND_DATA_SYNTHETIC
 *
 * Records (TLV type, then the value)
 *   ND_DATA_TLV_LINK         u8 operation, u8 flags, u16 name length N, u32 ifindex, u32 mtu,
 *                            u8 mac[6], N bytes name
 *   ND_DATA_TLV_RA_INTERVAL  u8 operation, u8[3] zero, u32 ifindex, u32 min, u32 max (seconds)
 *   ND_DATA_TLV_NEIGHBOUR    u8 operation, u8 neighbour state, u8 flags, u8 mac length (0 or 6),
 *                            u32 ifindex, u8 address[16], u8 mac[6]
 *   ND_DATA_TLV_SYNTHETIC    u8 operation, u8[3] zero, u32 index, u32 revision, any bytes
 *
 * A record with operation ND_DATA_DELETE says that the thing is gone; of its value only what names the
 * thing counts (ifindex; ifindex and address; index), the rest is zero.  A download carries
 * ND_DATA_SET records only: what a download does not name does not exist.
 */
#ifndef PEGEIR_ND_DATA_H
#define PEGEIR_ND_DATA_H

enum { ND_DATA_KEY_INTERFACE = 1000, ND_DATA_KEY_SYNTHETIC = 2000 };

enum { ND_DATA_LINK = 0, ND_DATA_RA_INTERVAL = 1, ND_DATA_NEIGHBOUR = 2, ND_DATA_SYNTHETIC = 3 };

enum {
    ND_DATA_TLV_LINK = 100,
    ND_DATA_TLV_RA_INTERVAL = 101,
    ND_DATA_TLV_NEIGHBOUR = 102,
    ND_DATA_TLV_SYNTHETIC = 103
};

enum { ND_DATA_SET = 1, ND_DATA_DELETE = 2 };

/* Flags of ND_DATA_TLV_LINK. */
enum { ND_DATA_LINK_UP = 0x01, ND_DATA_LINK_RUNNING = 0x02, ND_DATA_LINK_LOOPBACK = 0x04 };

/* Flags of ND_DATA_TLV_NEIGHBOUR; the neighbour state is the kernel's NUD_* value (1 incomplete,
 * 2 reachable, 4 stale, 8 delay, 16 probe, 32 failed, 64 no ARP, 128 permanent). */
enum { ND_DATA_NEIGHBOUR_ROUTER = 0x01 };

/* Fixed bytes of each value. */
enum {
    ND_DATA_LINK_LEN = 18, /* the name follows */
    ND_DATA_RA_INTERVAL_LEN = 16,
    ND_DATA_NEIGHBOUR_LEN = 30,
    ND_DATA_SYNTHETIC_LEN = 12 /* any bytes follow */
};

#endif
