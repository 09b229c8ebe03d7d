# The plug-in's public headers: what a host (the reference host, the tool, any other) may include.
# They declare the entry, the interfaces the module hands out and the services the host provides,
# the lexical path helpers those interfaces' paths follow, and the HDB file format. Everything
# else in entry/, host/, front/, hashdb/ and hdbfile/ is the module's own.
set(SIGNDB_PUBLIC_HEADERS
  entry/init.h
  front/policy_files.h
  front/sign_db.h
  hashdb/hash_db.h
  hashdb/obj_info.h
  hashdb/steady_time_service.h
  hashdb/wide_path.h
  hdbfile/big_endian.h
  hdbfile/hdb_format.h
  hdbfile/hdb_header.h
  hdbfile/hdb_record.h
  host/buffer.h
  host/cfg_service.h
  host/cfgex_service.h
  host/crypto_service.h
  host/host.h
  host/locale_service.h
  host/log_service.h
  host/policy.h
  host/read_context.h
  host/thread_pool.h
  host/time_service.h
  host/utility_service.h
  host/windows_api.h
)
