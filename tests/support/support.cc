// What tests share.
