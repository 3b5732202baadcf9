#include "playback/search.h"

#include "common/log.h"

namespace {

template <class List, class Node>
int add_node(List *list, std::unique_ptr<Node> node)
{
    if (list == nullptr || node == nullptr) {
        ERR("%d rec_list[%p] node [%p]", __LINE__, static_cast<void *>(list), static_cast<void *>(node.get()));
        return -1;
    }
    std::unique_ptr<Node> *tail = &list->list;
    while (*tail) tail = &(*tail)->next;
    *tail = std::move(node);
    ++list->count;
    return 0;
}

// Unlink node by node: a long list must not be destroyed by recursion.
template <class List>
void free_list(List *list)
{
    if (list == nullptr) return;
    auto node = std::move(list->list);
    while (node) node = std::move(node->next);
    list->count = 0;
}

}  // namespace

int search_rec_file(const TK_SYS_TIME *start_time, const TK_SYS_TIME *end_time, REC_FILE_LIST *rec_list)
{
    (void)start_time;
    (void)end_time;
    (void)rec_list;
    return 0;
}

int search_jpg_file(const TK_SYS_TIME *start_time, const TK_SYS_TIME *end_time, JPG_FILE_LIST *jpg_list)
{
    (void)start_time;
    (void)end_time;
    (void)jpg_list;
    return 0;
}

int search_add_file(REC_FILE_LIST *rec_list, std::unique_ptr<REC_FILE_NODE> node)
{
    return add_node(rec_list, std::move(node));
}

int search_add_jpg_file(JPG_FILE_LIST *jpg_list, std::unique_ptr<JPG_FILE_NODE> node)
{
    return add_node(jpg_list, std::move(node));
}

void search_free(REC_FILE_LIST *rec_list)
{
    free_list(rec_list);
}

void search_jpg_free(JPG_FILE_LIST *jpg_list)
{
    free_list(jpg_list);
}
