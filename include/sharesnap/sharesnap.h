/* Share-level snapshots on Btrfs: all C interfaces of libqovasharesnapshot. */
#ifndef SHARESNAP_SHARESNAP_H
#define SHARESNAP_SHARESNAP_H

#include <sharesnap/config.h>
#include <sharesnap/counters.h>
#include <sharesnap/frame.h>
#include <sharesnap/lifecycle.h>
#include <sharesnap/metadata.h>

#endif
