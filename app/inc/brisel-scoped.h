/* Holders for what a function frees when it returns. Thread: any. */
#ifndef BRISEL_SCOPED_H
#define BRISEL_SCOPED_H

#include <cstdlib>
#include <memory>

#include "brisel-common.h"

/* free_fn is the C function that releases a T. */
template <auto free_fn>
struct brisel_release {
  template <typename T>
  void operator()(T *object) const {
    free_fn(object);
  }
};

/* A heap text that free() releases. */
using scoped_text = std::unique_ptr<char, brisel_release<free>>;
using scoped_noti = std::unique_ptr<full_noti_data, brisel_release<brisel_full_noti_data_free>>;
using scoped_account = std::unique_ptr<account_data, brisel_release<brisel_account_data_free>>;
using scoped_op = std::unique_ptr<op_data, brisel_release<brisel_op_data_free>>;
using scoped_reply = std::unique_ptr<reply_noti_data, brisel_release<brisel_reply_noti_data_free>>;
using scoped_update = std::unique_ptr<update_noti_data, brisel_release<brisel_update_noti_data_free>>;
using scoped_more_msg = std::unique_ptr<more_msg_req_data, brisel_release<brisel_more_msg_req_data_free>>;
/* Lists as the store hands them out, with their records. */
using scoped_noti_list = std::unique_ptr<GSList, brisel_release<brisel_full_noti_data_list_free>>;
using scoped_account_list = std::unique_ptr<GSList, brisel_release<brisel_account_data_list_free>>;

#endif
