#include "cli/help.h"

#include <map>

namespace {

const std::map<std::string, std::string>& CommandHelp() {
  static const std::map<std::string, std::string> help = {
      {"init",
       "usage: signdb init [--dir DIR | --config FILE] [--policy NAME=ROOT]... [--force]\n"
       "                   [--ca-key-out PATH] [--protect-key [--passphrase-fd N]]\n"
       "\n"
       "Writes a configuration, a development CA with a signing certificate and key, and a data\n"
       "folder. The configuration goes to FILE, to DIR/signdb.json, or to the default place\n"
       "(~/.config/signdb/signdb.json, or $SIGNDB_CONFIG); keys go to keys/ and databases to data/\n"
       "beside it. Each --policy names a monitored directory (default: etc=/etc). An existing\n"
       "configuration is replaced only with --force; existing keys are always kept.\n"
       "\n"
       "The CA key makes signers that this host trusts: whoever holds it can re-sign a database.\n"
       "Write it straight to removable media with --ca-key-out, or move keys/ca.key off the host\n"
       "at once; it is needed again only by 'signdb renew'. --protect-key encrypts the signer key\n"
       "with a passphrase, asked twice on the terminal or read from descriptor N; every run that\n"
       "signs (scan, update) then asks for it the same way.\n"
       "\n"
       "examples:\n"
       "  signdb init\n"
       "  signdb init --ca-key-out /media/offline/signdb-ca.key --protect-key\n"
       "  signdb init --dir ./signdb-local --policy usr=/usr --policy etc=/etc\n"},
      {"scan",
       "usage: signdb scan [POLICY | --all] [--quiet] [--sign-later]\n"
       "\n"
       "Records every file, directory and symbolic link below the policy's root (content hash, size,\n"
       "mode, times, owner and permissions, ACL, link target) into a new database, signs it and saves\n"
       "it; the database it replaces is kept as NAME.previous.hdb for 'signdb diff'. Files are hashed\n"
       "on every processor. Objects that cannot be read are named and counted, the rest is saved, and\n"
       "the exit status is 2.\n"
       "\n"
       "  --sign-later  sign nothing here: keep the new database as NAME.hdb.candidate for\n"
       "                'signdb sign' on the host that holds the signer key, then 'signdb accept'\n"
       "\n"
       "examples:\n"
       "  signdb scan etc\n"
       "  signdb --config /etc/signdb/signdb.json scan usr --quiet\n"},
      {"check",
       "usage: signdb check [POLICY | --all] [--json] [--quiet] [--report DEST]...\n"
       "\n"
       "Loads the policy's database, refusing it unless its signature is good, and compares the tree\n"
       "with it: one line per difference (hash changed, attributes changed, times changed, security\n"
       "attributes changed, link target changed, kind changed, new, gone, renamed), with the recorded\n"
       "and current hash where they differ, then a summary. --json prints one JSON object per line,\n"
       "the summary last. The database is not changed.\n"
       "\n"
       "  --report DEST  send each finding and the summary there too: syslog (or journal: the\n"
       "                 system log socket /dev/log), syslog:SOCKET, or file:PATH (appended)\n"
       "\n"
       "exit status: 0 no difference, 1 differences found, 2 an error (also: objects unreadable);\n"
       "with several policies, the worst of them\n"
       "\n"
       "examples:\n"
       "  signdb check etc\n"
       "  signdb check etc --json | jq -r 'select(.change == \"hash changed\") | .path'\n"},
      {"update",
       "usage: signdb update [POLICY [PATH...] [--except PATH]... | --all] [--json] [--quiet] [--bind]\n"
       "                     [--sign-later]\n"
       "\n"
       "Accepts the tree as it is now: checks it like 'signdb check', records what changed or is new,\n"
       "removes what is gone, saves the database and reports what it accepted. The database it\n"
       "replaces is kept as NAME.previous.hdb. With PATHs, only the differences at or below them are\n"
       "accepted; with --except, all but those; the rest stays reported by the next check.\n"
       "--packages accepts exactly what the package manager explains; -i asks on the terminal,\n"
       "difference by difference ([y]es, [n]o, [a]ll that follow, [q]uit).\n"
       "\n"
       "  --bind  accept a database that has no policy binding (NAME.hdb.bind: the signed record\n"
       "          of its policy, root, host and revision), as one saved by an earlier version has,\n"
       "          and save it with one\n"
       "\n"
       "examples:\n"
       "  signdb update etc\n"},
      {"diff",
       "usage: signdb diff POLICY [PREVIOUS.hdb] [--json]\n"
       "\n"
       "Compares a previous database of the policy (by default the one that the last scan or update\n"
       "replaced) with the current one and lists what changed, is new and was removed. Both\n"
       "signatures must be good.\n"
       "\n"
       "exit status: 0 no difference, 1 differences, 2 an error\n"
       "\n"
       "examples:\n"
       "  signdb diff etc\n"
       "  signdb diff etc /backup/etc-2026-11-01.hdb\n"},
      {"lookup",
       "usage: signdb lookup HASH [--verify] [--json]\n"
       "\n"
       "Names a recorded file that carries the content hash, searching every policy's database.\n"
       "--verify names only a file that still carries it on disk.\n"
       "\n"
       "exit status: 0 found, 1 not found, 2 an error\n"
       "\n"
       "examples:\n"
       "  signdb lookup $(sha256sum /usr/bin/ls | cut -d' ' -f1)\n"
       "  signdb lookup 9f86d081884c7d659a2feaa0c55ad015a3bf4f1b2b0b822cd15d6c15b0f00a08 --verify\n"},
      {"ls",
       "usage: signdb ls POLICY [DIR] [--recursive] [--json]\n"
       "\n"
       "Lists what the database recorded in a directory (the root by default): kind, size, hash and\n"
       "name; with --recursive everything below it. DIR is relative to the root, or a full path.\n"
       "A policy that a watch service follows is listed as the service records it now.\n"
       "\n"
       "examples:\n"
       "  signdb ls etc\n"
       "  signdb ls etc ssh -R\n"},
      {"show",
       "usage: signdb show POLICY PATH [--json]\n"
       "\n"
       "Shows everything recorded for one object: kind, size, hash, attributes, times, security\n"
       "attributes, link target. PATH is relative to the root, or a full path.\n"
       "\n"
       "exit status: 0 shown, 1 not recorded, 2 an error\n"
       "\n"
       "examples:\n"
       "  signdb show etc passwd\n"
       "  signdb show etc /etc/ssh/sshd_config --json\n"},
      {"verify",
       "usage: signdb verify FILE.hdb [--signature FILE.p7s] [--json]\n"
       "\n"
       "Checks an HDB file's signature (FILE.hdb.p7s by default) with the configured CA and local\n"
       "identity, and names the signer's cstm_id and lcs_id. A file is refused unless its signer\n"
       "chains to the CA, belongs to the same customer and is not this installation itself.\n"
       "\n"
       "exit status: 0 good, 1 refused, 2 an error\n"
       "\n"
       "examples:\n"
       "  signdb verify ~/.config/signdb/data/etc.hdb\n"},
      {"dump",
       "usage: signdb dump FILE.hdb [--json]\n"
       "\n"
       "Prints an HDB file's header and every record (kind, mode, size, times, hash, path, security\n"
       "attributes, link target). Needs no configuration; reads any file safely.\n"
       "\n"
       "exit status: 0 well formed, 2 not an HDB file or damaged (what could be read is printed)\n"
       "\n"
       "examples:\n"
       "  signdb dump data/etc.hdb | less\n"
       "  signdb dump data/etc.hdb --json | jq -r '.record.path // empty'\n"},
      {"selftest",
       "usage: signdb selftest\n"
       "\n"
       "Loads the module through the reference host, records a small tree in a temporary folder,\n"
       "checks it, changes a file and sees the change reported.\n"},
      {"version", "usage: signdb version\n\nPrints the tool's version.\n"},
      {"sign",
       "usage: signdb sign FILE.hdb.candidate [--passphrase-fd N]\n"
       "\n"
       "On the host that holds the signer key: signs a candidate made by 'scan --sign-later' or\n"
       "'update --sign-later' (FILE.p7s) and its policy binding (FILE.bind). Look at it first\n"
       "('signdb dump', 'signdb diff'): what is signed is what the monitored host will trust.\n"
       "\n"
       "examples:\n"
       "  signdb sign /transfer/etc.hdb.candidate\n"},
      {"accept",
       "usage: signdb accept POLICY\n"
       "\n"
       "On the monitored host: puts the policy's candidate in place once its signature and its\n"
       "binding hold (signer trusted, same policy, root and host, made from the database in place),\n"
       "with the same crash-safe steps as a save; the database it replaces is kept as the previous.\n"
       "\n"
       "examples:\n"
       "  signdb accept etc\n"},
      {"rules",
       "usage: signdb rules POLICY PATH\n"
       "\n"
       "Says which of the policy's rules applies to PATH (relative to the root, or in full) and\n"
       "why: the last rule that matches decides; below an excluded directory nothing is walked.\n"
       "Rules are a policy's \"rules\" list in the configuration: {\"path\": GLOB, \"exclude\": true}\n"
       "or {\"path\": GLOB, \"check\": GROUP or [WORDS]}, each with an optional \"kind\". GLOB is\n"
       "anchored at the root; \"**\" spans any number of names. Groups: everything, read-only,\n"
       "permissions, log (may grow; rotation is not a change), ignore directory times.\n"
       "\n"
       "examples:\n"
       "  signdb rules var log/syslog\n"},
      {"watch",
       "usage: signdb watch [POLICY...] [--save-period SECONDS] [--rescan] [--inotify] [--passphrase-fd N]\n"
       "\n"
       "Runs until SIGTERM or SIGINT, keeping the policies' databases (all of them when none is\n"
       "named) up to date from the kernel's file events: fanotify (one mark on the file system) where\n"
       "the process may use it, inotify (a watch per directory) otherwise or with --inotify. At start\n"
       "each database is loaded with its signature checked (a refused one stops the service, or,\n"
       "with --rescan, the tree is recorded afresh), then reconciled with the tree, so that nothing\n"
       "changed while no service ran is missed. A file is read once its writing settles; a rename or\n"
       "move keeps the records (a directory with everything below it); events the kernel dropped\n"
       "lead to a reconcile. Changes are saved SECONDS after the first unsaved one (300 by default)\n"
       "and when the service stops (exit 0). Nothing runs while nothing changes.\n"
       "\n"
       "Queries: one JSON request per line on the owner-only socket DATA/watch.sock:\n"
       "  {\"request\":\"status\"}  {\"request\":\"lookup\",\"hash\":H}\n"
       "  {\"request\":\"show\",\"policy\":P,\"path\":PATH}  {\"request\":\"list\",\"policy\":P,\"path\":DIR}\n"
       "One service per data folder: a second one names the process that runs. While it runs, lookup,\n"
       "show and ls ask it; check, diff and verify of its policies read the files it saved last; scan\n"
       "and update are refused.\n"
       "\n"
       "examples:\n"
       "  signdb watch etc home --save-period 60\n"},
      {"status",
       "usage: signdb status [--json]\n"
       "\n"
       "What the running watch service says of each policy (objects recorded, events received and\n"
       "applied, writes waiting, reconciles, events lost, last save), or, when none runs, when each\n"
       "database was saved.\n"
       "\n"
       "examples:\n"
       "  signdb status --json\n"},
      {"renew",
       "usage: signdb renew --ca-key PATH [--days N] [--passphrase-fd N]\n"
       "\n"
       "Issues a new signer certificate (valid N days, 365 by default) for the signer key in use,\n"
       "with the CA key brought to this host for that moment. scan and update warn 30 days before\n"
       "the signer certificate expires and refuse to sign with an expired one.\n"
       "\n"
       "examples:\n"
       "  signdb renew --ca-key /media/offline/signdb-ca.key\n"},
  };
  return help;
}

}  // namespace

void PrintUsage(std::ostream& out) {
  out << "usage: signdb [--config FILE] [--module FILE] COMMAND [ARGUMENTS] [OPTIONS]\n"
         "\n"
         "File-integrity monitoring: record the files of a directory tree in a signed database, then\n"
         "find what changed.\n"
         "\n"
         "commands:\n"
         "  init                     write a configuration and development keys\n"
         "  scan POLICY              record the policy's tree into a new signed database\n"
         "  check POLICY             report every difference between the tree and its database\n"
         "  update POLICY [PATH...]  accept the differences (or those at PATHs) into the database\n"
         "                           (scan, check and update: every policy with --all or no name)\n"
         "  diff POLICY [PREV.hdb]   what changed between a previous database and the current one\n"
         "  lookup HASH              which recorded file carries a content hash\n"
         "  ls POLICY [DIR]          what the database recorded in a directory\n"
         "  show POLICY PATH         everything recorded for one object\n"
         "  verify FILE.hdb          check an HDB file's signature and name its signer\n"
         "  dump FILE.hdb            print an HDB file's header and records\n"
         "  sign FILE.candidate      sign a candidate on the host that holds the signer key\n"
         "  accept POLICY            put a candidate signed elsewhere in place\n"
         "  rules POLICY PATH        which rule applies to a path, and why\n"
         "  watch [POLICY...]        keep the databases up to date from file events, answer queries\n"
         "  status                   what the running watch service does, or when each was saved\n"
         "  renew --ca-key PATH      issue a new signer certificate with the offline CA key\n"
         "  selftest                 exercise the module through the reference host\n"
         "  version                  print the tool's version\n"
         "\n"
         "options:\n"
         "  --config FILE   the configuration (default: $SIGNDB_CONFIG, else\n"
         "                  ~/.config/signdb/signdb.json, else /etc/signdb/signdb.json for root)\n"
         "  --module FILE   the module (default: libsigndb.so beside this program, or $SIGNDB_MODULE)\n"
         "  --quiet, -q     no progress line\n"
         "  --wait          wait for a policy that another run is writing (or reading, for a\n"
         "                  writer) instead of stopping with the holder's process id\n"
         "  --passphrase-fd N  read the signer key's passphrase from descriptor N, not the terminal\n"
         "  --help, -h      this text; 'signdb COMMAND --help' for one command\n"
         "\n"
         "exit status: 0 nothing to report, 1 differences (or nothing found), 2 an error\n"
         "\n"
         "examples:\n"
         "  signdb init --dir ./signdb-local --policy etc=/etc\n"
         "  signdb --config ./signdb-local/signdb.json scan etc\n"
         "  signdb --config ./signdb-local/signdb.json check etc --json\n";
}

bool PrintCommandHelp(const std::string& command, std::ostream& out) {
  auto it = CommandHelp().find(command);
  if (it == CommandHelp().end()) return false;
  out << it->second;
  return true;
}
