#include "entry/init.h"

#include "entry/global_cls_base.h"
#include "front/sign_db_impl.h"
#include "host/host.h"

void InitModule(const std::shared_ptr<CHost>& host) {
  std::shared_ptr<CSignDBImpl>& global = global_cls_base<CSignDBImpl>::instance();
  if (global) return;
  std::shared_ptr<CHost> host_copy = host;
  // One allocation for the object and its counts, so both go together with the last reference.
  std::shared_ptr<CSignDBImpl> impl = std::make_shared<CSignDBImpl>(host_copy);
  global = impl;
  std::shared_ptr<CSignDB> front = impl;
  host_copy->TakeSignDB(front);
}
