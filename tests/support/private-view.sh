#!/bin/bash
# private-view.sh [--own-network] [--own-mounts] [--writable DIRECTORY]... [--] COMMAND [ARGUMENT]...
#
# Runs COMMAND in a private view of the file system. It sees the machine as it is, except that
# /opsadmin and /var/spool/crypto are its own: new, in memory, gone when it ends, and made even where
# the machine has no such directories. All else is read-only but for /tmp, /var/tmp, /dev, /proc and
# the DIRECTORYs. COMMAND may use /proc and ptrace, which sanitizers need.
#
# With --own-network it sees no network but a loopback interface of its own, where it may listen on
# every port, and /etc without the files that say how host names are resolved; it can make them.
#
# With --own-mounts it may make further namespaces for mounts and networks. An ordinary user always may,
# and so may root, but for a chroot, where the kernel refuses new user namespaces.
#
# Works as root and as an ordinary user with unprivileged user namespaces. In a chroot it needs root,
# the chroot's folder bind-mounted onto itself, and /proc and /dev mounted in it.
set -euo pipefail
shopt -s dotglob nullglob

writable=(/tmp /var/tmp)
network=
privileges=()
while [[ ${1-} == --* ]]; do
  case $1 in
    --own-network) network=own; shift ;;
    --own-mounts)
      if [[ $EUID -eq 0 ]]; then
        privileges=(--cap-add CAP_SYS_ADMIN --cap-add CAP_NET_ADMIN --cap-add CAP_NET_BIND_SERVICE)
      fi
      shift
      ;;
    --writable) writable+=("${2:?}"); shift 2 ;;
    --) shift; break ;;
    *) echo "private-view.sh: unknown option $1" >&2; exit 2 ;;
  esac
done
if [[ $# -eq 0 ]]; then
  echo "usage: private-view.sh [--own-network] [--own-mounts] [--writable DIRECTORY]... [--] COMMAND..." >&2
  exit 2
fi

hint() {
  cat >&2 << 'END'
private-view.sh: bwrap cannot make a private view of the file system here.
 - It is in Debian's package bubblewrap.
 - As an ordinary user it needs unprivileged user namespaces (sysctl kernel.unprivileged_userns_clone).
 - In a container it needs the right to mount, or another user namespace.
 - In a chroot it needs root, the chroot's folder bind-mounted onto itself, /proc and /dev mounted.
END
  exit 125
}

# mirror DIRECTORY [NAME]...: the view's DIRECTORY has all that the machine's has, except the NAMEs.
# The view's root is empty at first, so that directories can be made in it.
view=()
mirror() {
  local directory=$1 entry; shift
  for entry in "$directory"/*; do
    [[ " $* " == *" ${entry##*/} "* ]] && continue
    if [[ -L $entry ]]; then
      view+=(--symlink "$(readlink "$entry")" "$entry")
    else
      view+=(--ro-bind "$entry" "$entry")
    fi
  done
}

command -v bwrap > /dev/null || hint
mirror "" dev proc opsadmin var ${network:+etc}
view+=(--dev-bind /dev /dev --bind /proc /proc --dir /var --dir /var/spool)
mirror /var spool
mirror /var/spool crypto
if [[ $network == own ]]; then
  view+=(--unshare-net --cap-add CAP_NET_BIND_SERVICE --dir /etc)
  mirror /etc hosts resolv.conf nsswitch.conf host.conf
fi
for directory in "${writable[@]}"; do
  [[ -d $directory ]] && view+=(--bind "$directory" "$directory")
done
for directory in /opsadmin/etc/cert/server/{ca,crl,apps} /var/spool/crypto/crl_cache; do
  view+=(--dir "$directory")
done
view+=("${privileges[@]}")
view+=(--symlink . /opsadmin/.pkx509-private-view --chdir "$PWD" --die-with-parent)

status=0
bwrap "${view[@]}" -- "$@" || status=$?
# Both bwrap and COMMAND can fail with 1; only bwrap fails on a command that does nothing.
if [[ $status -ne 0 ]] && ! bwrap "${view[@]}" -- true; then hint; fi
exit "$status"
