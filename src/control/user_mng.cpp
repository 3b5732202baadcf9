#include "control/user_mng.h"

#include <cstring>
#include <vector>

#include "common/log.h"
#include "common/zq_proto.h"
#include "main/socketclientcmd.h"

namespace {

// The server's list: a count byte and up to 255 entries.
constexpr size_t kListMaxBytes = 1 + 255 * sizeof(ZQ_USER_ENTRY);

// Text into a 16-byte server field: at most 15 characters and the terminator.
void set_field(char (&field)[16], const char *text)
{
    wire_set_str(field, text);
}

int forward(int op, const USER_INFO *p_user)
{
    char name[sizeof p_user->name + 1], passwd[sizeof p_user->passwd + 1];
    wire_get_str(name, sizeof name, p_user->name, sizeof p_user->name);
    wire_get_str(passwd, sizeof passwd, p_user->passwd, sizeof p_user->passwd);
    OperatorUser rec{};
    rec.OperatorCammand = static_cast<uint8_t>(op);
    set_field(rec.UserName, name);
    set_field(rec.UserPassword, passwd);
    DBG("%d:name = %s, password = %s", op, rec.UserName, rec.UserPassword);
    rec.Authority = static_cast<uint8_t>(user_mng_rights_to_authority(&p_user->privilege));
    socket_client_cmd_Set(ZQ_SETUSER, &rec, sizeof rec);
    return 0;
}

}  // namespace

void user_mng_authority_to_rights(int authority, USER_PRIVILEGE *priv)
{
    std::memset(priv, 0, sizeof *priv);
    int rights = 0;
    switch (authority) {
        case 0:
            rights = RIGHT_COUNT;
            break;
        case 1:
            rights = RIGHT_RESET_FACTORY_SET + 1;
            break;
        case 2:
            rights = 0;
            break;
        default:
            return;  // no right at all
    }
    std::memset(priv->opt_rights, 1, static_cast<size_t>(rights));
    std::memset(priv->local_priview_right, 1, sizeof priv->local_priview_right);
    std::memset(priv->local_playback_right, 1, sizeof priv->local_playback_right);
    std::memset(priv->net_priview_right, 1, sizeof priv->net_priview_right);
    std::memset(priv->net_playback_right, 1, sizeof priv->net_playback_right);
}

int user_mng_rights_to_authority(const USER_PRIVILEGE *priv)
{
    int authority = 2;
    for (int i = 0; i <= RIGHT_SYSBASE_SET; ++i) {
        if (priv->opt_rights[i] != 0) {
            authority = 1;
            DBG("opt_rights[%d] = %d", i, priv->opt_rights[i]);
        }
    }
    // Index 8 is looked at twice: any right from RIGHT_SYSBASE_SET up makes a level-0 user.
    for (int i = RIGHT_SYSBASE_SET; i < RIGHT_COUNT; ++i) {
        if (priv->opt_rights[i] != 0) {
            authority = 0;
            DBG("opt_rights[%d] = %d", i, priv->opt_rights[i]);
        }
    }
    return authority;
}

int get_all_user(USER_INFO *users)
{
    std::vector<uint8_t> list(kListMaxBytes);
    uint8_t req[3] = {0, 0, 0};
    int outlen = 0;
    const int ret =
        socket_client_cmd_Read(ZQ_GETUSER, req, sizeof req, list.data(), &outlen, static_cast<int>(list.size()));
    if (ret < 0) return ret;
    const int user_count = outlen >= 1 ? list[0] : 0;
    DBG("user_count = %d", user_count);
    // Only the entries that came whole, and no more than the work buffer holds.
    const int received = outlen > 1 ? (outlen - 1) / static_cast<int>(sizeof(ZQ_USER_ENTRY)) : 0;
    int count = user_count < received ? user_count : received;
    if (count > USER_MNG_MAX_LIST) count = USER_MNG_MAX_LIST;
    for (int i = 0; i < count; ++i) {
        ZQ_USER_ENTRY entry;
        std::memcpy(&entry, list.data() + 1 + static_cast<size_t>(i) * sizeof entry, sizeof entry);
        USER_INFO &u = users[i];
        std::memset(&u, 0, sizeof u);
        u.usr_id = static_cast<TK_U32>(i);
        char name[sizeof entry.UserName + 1], passwd[sizeof entry.UserPassword + 1];
        wire_get_str(name, sizeof name, entry.UserName, sizeof entry.UserName);
        wire_get_str(passwd, sizeof passwd, entry.UserPassword, sizeof entry.UserPassword);
        wire_set_str(u.name, name);
        wire_set_str(u.passwd, passwd);
        DBG("%d:name = %s, password = %s, Authority = %d", i, name, passwd, entry.Authority);
        user_mng_authority_to_rights(entry.Authority, &u.privilege);
    }
    return count;
}

int add_user(const USER_INFO *p_user)
{
    return forward(ZQ_USER_ADD, p_user);
}

int del_user(const USER_INFO *p_user)
{
    return forward(ZQ_USER_DEL, p_user);
}

int modify_user(const USER_INFO *p_user)
{
    return forward(ZQ_USER_MODIFY, p_user);
}

int change_passwd(const char *pname, const char *p_old, const char *p_new)
{
    OperatorUser rec{};
    // The server expects the password change under the delete operation code, with authority 0.
    rec.OperatorCammand = ZQ_USER_DEL;
    set_field(rec.UserName, pname);
    set_field(rec.UserPassword, p_new);
    rec.Authority = 0;
    DBG("%d:name = %s, p_old = %s, p_new = %s", rec.OperatorCammand, rec.UserName, p_old, rec.UserPassword);
    socket_client_cmd_Set(ZQ_SETUSER, &rec, sizeof rec);
    return 0;
}
