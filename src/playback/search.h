// Searching the card for recordings and snapshots by time (0x50001, 0x50009).
//
// The recorder's files are not read yet: both searches answer an empty list.
// The lists own their nodes; free them with search_free / search_jpg_free.
#pragma once

#include <memory>

#include "common/tk_proto.h"

struct REC_FILE_NODE {
    std::unique_ptr<REC_FILE_NODE> next;
    REC_FILE_INFO info{};
};

struct REC_FILE_LIST {
    int count = 0;
    std::unique_ptr<REC_FILE_NODE> list;  // first node
};

struct JPG_FILE_NODE {
    std::unique_ptr<JPG_FILE_NODE> next;
    JPG_FILE_INFO info{};
};

struct JPG_FILE_LIST {
    int count = 0;
    std::unique_ptr<JPG_FILE_NODE> list;
};

// Append the recordings whose time lies within [start_time, end_time] to
// rec_list (passed in empty). 0, or -1 when the card cannot be walked. For
// now: 0 with nothing appended.
int search_rec_file(const TK_SYS_TIME *start_time, const TK_SYS_TIME *end_time, REC_FILE_LIST *rec_list);

// The same for snapshots.
int search_jpg_file(const TK_SYS_TIME *start_time, const TK_SYS_TIME *end_time, JPG_FILE_LIST *jpg_list);

// Append node at the tail and count it: 0, or -1 when either is missing.
int search_add_file(REC_FILE_LIST *rec_list, std::unique_ptr<REC_FILE_NODE> node);
int search_add_jpg_file(JPG_FILE_LIST *jpg_list, std::unique_ptr<JPG_FILE_NODE> node);

// Free every node; the list is empty afterwards.
void search_free(REC_FILE_LIST *rec_list);
void search_jpg_free(JPG_FILE_LIST *jpg_list);
