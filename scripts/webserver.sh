#!/usr/bin/env bash
# A local web server for tests and the demo: Debian's nginx on a loopback port, with its own
# configuration, logs, temporary files and test CA inside one state folder. The system's nginx
# configuration and service are never used.
#
#   webserver.sh start STATE_DIR [--root DIR] [--tls|--plain] [--put] [--port N]
#       Starts nginx and prints its port. Files are served from DIR (default STATE_DIR/www).
#       --tls (default) answers HTTPS with a certificate for 127.0.0.1 and localhost signed by
#       the test CA; --plain answers HTTP. --put accepts PUT under /uploads/ (answered 200 as
#       object stores answer a presigned PUT; files land in
#       STATE_DIR/uploads/, at most 64 MiB each). Without --port a free port is picked.
#   webserver.sh stop STATE_DIR          stops it (nothing to do when it is not running)
#   webserver.sh ca STATE_DIR            prints the test CA's certificate path (made if missing)
#   webserver.sh install-ca STATE_DIR DIR
#       copies the test CA into the CA folder DIR under its OpenSSL hash name (HASH.0), so that
#       libcurl with CURLOPT_CAPATH=DIR (or a board's etc/ssl/certs/) trusts the server
#
# Switches, read on every request (create or remove the files while the server runs):
#   STATE_DIR/fail-all           every request is answered 500
#   STATE_DIR/fail/PATH          requests for /PATH are answered 500
#   STATE_DIR/stall-all          every request is answered at 1 byte per second, status line and
#   STATE_DIR/stall/PATH         headers included: the client sees no complete answer for minutes
# A stalled request's body is read and dropped (a stalled PUT stores nothing). Stop cuts stalled
# and running transfers: a download cut that way is a body shorter than its Content-Length.
#
# Access log STATE_DIR/access.log, one line per finished request:
#   METHOD REQUEST-URI STATUS RESPONSE-BODY-BYTES REQUEST-BYTES
# (REQUEST-BYTES counts the request line, headers and body). Errors: STATE_DIR/error.log.
set -euo pipefail

die() {
  echo "webserver: $*" >&2
  exit 1
}

usage() {
  sed -n '2,/^set -euo/p' "$0" | sed -e '/^set -euo/d' -e 's/^# \{0,1\}//' >&2
  exit 2
}

find_nginx() {
  for p in /usr/sbin/nginx /usr/bin/nginx /usr/local/sbin/nginx; do
    if [ -x "$p" ]; then
      echo "$p"
      return
    fi
  done
  die "nginx is not installed (scripts/install-deps.sh)"
}

# The test CA and a server certificate for 127.0.0.1 and localhost, made once per state folder.
make_certs() {
  local dir="$1/tls"
  [ -s "$dir/server.pem" ] && [ -s "$dir/ca.pem" ] && return 0
  mkdir -p "$dir"
  cat >"$dir/openssl.cnf" <<'EOF'
[req]
distinguished_name = dn
prompt = no
[dn]
CN = tarvo test CA
[ca_ext]
basicConstraints = critical, CA:TRUE
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
[server_ext]
basicConstraints = critical, CA:FALSE
keyUsage = critical, digitalSignature, keyEncipherment
extendedKeyUsage = serverAuth
subjectAltName = IP:127.0.0.1, DNS:localhost
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
EOF
  (
    cd "$dir"
    openssl req -x509 -new -nodes -config openssl.cnf -extensions ca_ext \
      -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -keyout ca.key -out ca.pem -days 3650
    openssl req -new -nodes -config openssl.cnf -subj "/CN=127.0.0.1" \
      -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -keyout server.key -out server.csr
    openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key -set_serial "0x$(openssl rand -hex 8)" \
      -days 825 -extfile openssl.cnf -extensions server_ext -out server.pem
  ) >"$dir/openssl.log" 2>&1 || die "openssl failed: $(cat "$dir/openssl.log")"
}

# A port candidate below the kernel's ephemeral range (32768 and up), so that it does not collide
# with the client sockets and free ports other tests take from the kernel; start retries
# another one when nginx cannot bind it.
free_port() {
  echo $((20000 + RANDOM % 12000))
}

write_conf() {
  local state="$1" root="$2" port="$3" tls="$4" put="$5"
  local listen="listen 127.0.0.1:$port;" tls_lines="" put_lines="dav_methods off;" user_line=""
  if [ "$tls" = 1 ]; then
    listen="listen 127.0.0.1:$port ssl;"
    tls_lines="ssl_certificate $state/tls/server.pem;
    ssl_certificate_key $state/tls/server.key;
    ssl_protocols TLSv1.2 TLSv1.3;"
  fi
  local module_line="" js_lines="" store_location="" store_server=""
  if [ "$put" = 1 ]; then
    # A PUT is stored by nginx's WebDAV module in an internal location; the njs handler in front
    # answers 200 once it is stored, as object stores answer a presigned PUT (WebDAV itself says
    # 201 Created or 204 No Content).
    module_line="load_module /usr/lib/nginx/modules/ngx_http_js_module.so;"
    cat >"$state/upload.js" <<'JS'
async function put(r) {
  if (r.method !== 'PUT') {
    r.internalRedirect('/.store' + r.uri);  // reads are served from the folder as before
    return;
  }
  const stored = await r.subrequest('/.store' + r.uri, {method: 'PUT', body: r.requestBuffer || ''});
  r.return(stored.status === 201 || stored.status === 204 ? 200 : stored.status);
}
export default {put};
JS
    js_lines="js_import upload from $state/upload.js;"
    put_lines="client_body_buffer_size 64m;
      js_content upload.put;"
    # WebDAV stores only a body read into a file, so the stored copy goes through a socket of
    # the server's own to a second server that reads it as any client's body.
    store_location="location /.store/ {
      internal;
      proxy_pass http://unix:$state/store.sock:;
    }"
    store_server="server {
    listen unix:$state/store.sock;
    client_max_body_size 64m;
    client_body_buffer_size 16k;
    access_log off;
    location /.store/uploads/ {
      alias $state/uploads/;
      dav_methods PUT;
      create_full_put_path on;
      dav_access user:rw group:r all:r;
    }
  }"
  fi
  # workers of an nginx started by root would otherwise run as nobody and not reach the folders
  if [ "$(id -u)" -eq 0 ]; then user_line="user root;"; fi
  cat >"$state/nginx.conf" <<EOF
# written by scripts/webserver.sh
$module_line
$user_line
daemon on;
worker_processes 1;
pid $state/nginx.pid;
error_log $state/error.log warn;

events { worker_connections 64; }

http {
  client_body_temp_path $state/tmp/body;
  proxy_temp_path $state/tmp/proxy;
  fastcgi_temp_path $state/tmp/fastcgi;
  uwsgi_temp_path $state/tmp/uwsgi;
  scgi_temp_path $state/tmp/scgi;
  log_format tests '\$request_method \$request_uri \$status \$body_bytes_sent \$request_length';
  access_log $state/access.log tests;
  default_type application/octet-stream;
  sendfile on;
  keepalive_timeout 30s;
  $js_lines

  server {
    $listen
    server_name 127.0.0.1 localhost;
    $tls_lines
    root $root;
    client_max_body_size 64m;

    # switches: see the top of scripts/webserver.sh
    if (-f $state/fail-all) { return 500; }
    if (-f $state/fail\$uri) { return 500; }
    if (-f $state/stall-all) { rewrite ^ /.stall last; }
    if (-f $state/stall\$uri) { rewrite ^ /.stall last; }

    location / { }
    location /uploads/ {
      root $state;
      $put_lines
    }
    $store_location
    location = /.stall {
      internal;
      limit_rate 1;
      return 503 "stalled\n";
    }
  }
  $store_server
}
EOF
}

start() {
  local state="" root="" tls=1 put=0 port=""
  [ $# -ge 1 ] || usage
  state="$1"
  shift
  while [ $# -gt 0 ]; do
    case "$1" in
      --root) root="${2:?--root needs a folder}"; shift 2 ;;
      --tls) tls=1; shift ;;
      --plain) tls=0; shift ;;
      --put) put=1; shift ;;
      --port) port="${2:?--port needs a number}"; shift 2 ;;
      *) usage ;;
    esac
  done
  [[ -z "$port" || "$port" =~ ^[0-9]+$ ]] || die "bad port $port"
  [ "$port" != 80 ] || die "port 80 is the system's; pick another"
  # nginx's configuration cannot quote blanks in paths
  [[ "$state$root" != *[[:space:]]* ]] || die "no blanks in STATE_DIR or --root, please"
  mkdir -p "$state"
  state="$(cd "$state" && pwd)"
  root="${root:-$state/www}"
  mkdir -p "$root" "$state/uploads" "$state/fail" "$state/stall" "$state/tmp"
  root="$(cd "$root" && pwd)"
  stop "$state"
  [ "$tls" = 0 ] || make_certs "$state"
  local nginx tries=1 p
  nginx="$(find_nginx)"
  [ -n "$port" ] || tries=10
  for ((i = 0; i < tries; i++)); do
    p="${port:-$(free_port)}"
    # taken already: skip it (nginx would spend seconds retrying the bind)
    if [ -z "$port" ] && (exec 3<>"/dev/tcp/127.0.0.1/$p") 2>/dev/null; then continue; fi
    write_conf "$state" "$root" "$p" "$tls" "$put"
    : >"$state/start.log"
    if "$nginx" -p "$state" -e "$state/error.log" -c "$state/nginx.conf" >"$state/start.log" 2>&1; then
      wait_until_answers "$state" "$p" || die "nginx does not answer on port $p: $(cat "$state/error.log")"
      echo "$p" >"$state/port"
      echo "$p"
      return 0
    fi
    # another program took the port between the check and nginx's bind: try another one
    grep -q "Address already in use" "$state/start.log" || break
  done
  die "nginx did not start: $(cat "$state/start.log")"
}

# nginx binds its port before it returns; the connection is then served once the worker runs.
wait_until_answers() {
  local state="$1" port="$2"
  for ((i = 0; i < 500; i++)); do
    if [ -s "$state/nginx.pid" ] && (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then return 0; fi
    sleep 0.02
  done
  return 1
}

# Whether pid is the live nginx master of this state folder (an ended one left unreaped by its
# adoptive parent has an empty command line).
is_master() {
  grep -qa "$1/nginx.conf" "/proc/$2/cmdline" 2>/dev/null
}

stop() {
  local state="${1:?usage: webserver.sh stop STATE_DIR}" pid
  [ -s "$state/nginx.pid" ] || return 0
  pid="$(cat "$state/nginx.pid")"
  [[ "$pid" =~ ^[0-9]+$ ]] || return 0
  # only an nginx master started from this folder: a stale pid file may name anything
  if ! is_master "$state" "$pid"; then
    rm -f "$state/nginx.pid"
    return 0
  fi
  # fast shutdown: a graceful one would wait for stalled requests
  kill -TERM "$pid" 2>/dev/null || true
  for ((i = 0; i < 500; i++)); do
    is_master "$state" "$pid" || break
    sleep 0.02
  done
  if is_master "$state" "$pid"; then
    pkill -KILL -P "$pid" 2>/dev/null || true
    kill -KILL "$pid" 2>/dev/null || true
  fi
  rm -f "$state/nginx.pid"
}

ca() {
  local state="${1:?usage: webserver.sh ca STATE_DIR}"
  mkdir -p "$state"
  state="$(cd "$state" && pwd)"
  make_certs "$state"
  echo "$state/tls/ca.pem"
}

install_ca() {
  local state="${1:?usage: webserver.sh install-ca STATE_DIR DIR}" dir="${2:?usage: webserver.sh install-ca STATE_DIR DIR}"
  local cert hash n
  cert="$(ca "$state")"
  hash="$(openssl x509 -hash -noout -in "$cert")"
  mkdir -p "$dir"
  # HASH.0, HASH.1, ... : the first free name, or the one that already holds this CA
  for ((n = 0; ; n++)); do
    if [ ! -e "$dir/$hash.$n" ]; then
      cp "$cert" "$dir/$hash.$n.tmp" && mv "$dir/$hash.$n.tmp" "$dir/$hash.$n"
      break
    fi
    cmp -s "$cert" "$dir/$hash.$n" && break
  done
  echo "$dir/$hash.$n"
}

case "${1:-}" in
  start) shift; start "$@" ;;
  stop) shift; stop "$@" ;;
  ca) shift; ca "$@" ;;
  install-ca) shift; install_ca "$@" ;;
  *) usage ;;
esac
