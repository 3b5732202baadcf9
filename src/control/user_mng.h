// User accounts (0x30090-0x30094). The system server keeps per user a name,
// a password and one authority level; clients see a full USER_PRIVILEGE.
//
//   Authority 0: every operation right (0-15) and every channel right
//   Authority 1: operation rights 0-7 and every channel right
//   Authority 2: every channel right, no operation right
//
// No operation is checked: an unknown user, a duplicate name or a wrong old
// password all answer 0; what the server makes of it is the server's concern.
#pragma once

#include "common/tk_proto.h"

// The most users a listing returns: 23 records fill the 8192-byte work buffer with their count.
constexpr int USER_MNG_MAX_LIST = 23;

// Fill up to USER_MNG_MAX_LIST records from the server's list (usr_id = the
// index, name and password in clear, rights from the authority). The number
// of records filled, or -1 when the request could not be sent.
int get_all_user(USER_INFO *users);

// Forward one operation (add 0, delete 1, modify 2) with the name and
// password cut to 15 characters and the authority derived from opt_rights:
// 2, or 1 with any right 0-8, or 0 with any right 8-15. Return 0.
int add_user(const USER_INFO *p_user);
int del_user(const USER_INFO *p_user);
int modify_user(const USER_INFO *p_user);

// Send the password change as the server expects it: operation 1, the name,
// the new password and authority 0. p_old is only logged. Returns 0.
int change_passwd(const char *pname, const char *p_old, const char *p_new);

// The rights of an authority level, and the level of a set of rights.
void user_mng_authority_to_rights(int authority, USER_PRIVILEGE *priv);
int user_mng_rights_to_authority(const USER_PRIVILEGE *priv);
