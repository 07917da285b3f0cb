#!/usr/bin/env bash
# A private Apache WebDAV server for the tests, on 127.0.0.1 only.
#
# Sourced by the test scripts, or run as a program:
#   apache_fixture.sh start DIR   writes DIR/env (variables below) and starts
#                                 the server in the background; prints DIR/env
#   apache_fixture.sh stop DIR    stops it
# Sourced, `dav_start DIR` and `dav_stop` do the same and set:
#   DAV_PORT, DAV_TLS_PORT    plain HTTP and TLS ports
#   DAV_ROOT                  the document root; the share "/dav/" is
#                             $DAV_ROOT/dav, "/auth/" (Basic authentication,
#                             user $DAV_USER, password $DAV_PASSWORD) is
#                             $DAV_ROOT/auth, "/norange/" ignores Range
#                             headers and is $DAV_ROOT/norange
#   DAV_CERT                  the self-signed certificate of the TLS port
#   DAV_PID                   the server's process id
# The configuration, lock database, logs and certificate live in DIR. As
# root, the server runs as www-data, allowed to write files that root made
# in the document root (tests make files there as root, as another user of
# the share would).
DAV_USER=alice
DAV_PASSWORD='s3cret pass'

dav_free_port() {
  local port
  for _ in $(seq 1 50); do
    port=$((20000 + RANDOM % 30000))
    if ! (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then echo "$port"; return 0; fi
  done
  return 1
}

dav_write_config() {
  local dir=$1 modules=/usr/lib/apache2/modules
  cat > "$dir/httpd.conf" <<CONF
ServerRoot "$dir"
ServerName 127.0.0.1
PidFile "$dir/httpd.pid"
ErrorLog "$dir/error.log"
LogLevel warn
Mutex file:$dir
DefaultRuntimeDir "$dir"
Listen 127.0.0.1:$DAV_PORT
Listen 127.0.0.1:$DAV_TLS_PORT
LoadModule mpm_event_module $modules/mod_mpm_event.so
LoadModule authz_core_module $modules/mod_authz_core.so
LoadModule authn_core_module $modules/mod_authn_core.so
LoadModule authn_file_module $modules/mod_authn_file.so
LoadModule authz_user_module $modules/mod_authz_user.so
LoadModule auth_basic_module $modules/mod_auth_basic.so
LoadModule alias_module $modules/mod_alias.so
LoadModule dav_module $modules/mod_dav.so
LoadModule dav_fs_module $modules/mod_dav_fs.so
LoadModule ssl_module $modules/mod_ssl.so
LoadModule socache_shmcb_module $modules/mod_socache_shmcb.so
ServerLimit 2
ThreadsPerChild 16
MaxRequestWorkers 32
StartServers 1
KeepAlive On
MaxKeepAliveRequests 0
LimitXMLRequestBody 0
LimitRequestBody 0
DocumentRoot "$DAV_ROOT"
DavLockDB "$dir/davlock"
SSLSessionCache "shmcb:$dir/ssl_cache(512000)"
<Directory "$DAV_ROOT">
  Require all granted
  Dav On
  Options None
  AllowOverride None
</Directory>
<Location "/auth">
  AuthType Basic
  AuthName "skarvo tests"
  AuthUserFile "$dir/htpasswd"
  Require valid-user
</Location>
<Location "/norange">
  MaxRanges none
</Location>
<VirtualHost 127.0.0.1:$DAV_TLS_PORT>
  SSLEngine on
  SSLCertificateFile "$DAV_CERT"
  SSLCertificateKeyFile "$dir/key.pem"
</VirtualHost>
CONF
}

# Starts the server on the ports and root already chosen; waits until it answers.
dav_launch() {
  local dir=$1 run=()
  if [ "$(id -u)" -eq 0 ]; then
    run=(setpriv --reuid www-data --regid www-data --clear-groups
         --inh-caps +dac_override --ambient-caps +dac_override)
  fi
  "${run[@]}" /usr/sbin/apache2 -f "$dir/httpd.conf" -D FOREGROUND >> "$dir/console.log" 2>&1 &
  DAV_PID=$!
  for _ in $(seq 1 100); do
    if curl -s -o /dev/null "http://127.0.0.1:$DAV_PORT/dav/"; then return 0; fi
    kill -0 "$DAV_PID" 2>/dev/null || break
    sleep 0.1
  done
  echo "apache did not start:" >&2
  tail -5 "$dir/console.log" "$dir/error.log" >&2
  return 1
}

dav_start() {
  DAV_DIR=$1
  mkdir -p "$DAV_DIR"
  DAV_ROOT=${DAV_ROOT:-$DAV_DIR/root}
  DAV_CERT=$DAV_DIR/cert.pem
  mkdir -p "$DAV_ROOT/dav" "$DAV_ROOT/auth" "$DAV_ROOT/norange"
  DAV_PORT=$(dav_free_port) && DAV_TLS_PORT=$(dav_free_port) || return 1
  openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=127.0.0.1 \
    -addext subjectAltName=IP:127.0.0.1 -keyout "$DAV_DIR/key.pem" -out "$DAV_CERT" \
    >/dev/null 2>&1 || { echo "openssl failed" >&2; return 1; }
  htpasswd -cb "$DAV_DIR/htpasswd" "$DAV_USER" "$DAV_PASSWORD" >/dev/null 2>&1 || return 1
  if [ "$(id -u)" -eq 0 ]; then chown www-data "$DAV_DIR" "$DAV_DIR/key.pem"; fi
  dav_write_config "$DAV_DIR"
  dav_launch "$DAV_DIR" || return 1
  cat > "$DAV_DIR/env" <<ENV
DAV_PORT=$DAV_PORT
DAV_TLS_PORT=$DAV_TLS_PORT
DAV_ROOT=$DAV_ROOT
DAV_CERT=$DAV_CERT
DAV_PID=$DAV_PID
DAV_USER=$DAV_USER
DAV_PASSWORD='$DAV_PASSWORD'
ENV
}

# Stops the server and waits for it to exit (at most 10 s, then kills it).
dav_stop() {
  [ -n "${DAV_PID:-}" ] || return 0
  kill -TERM "$DAV_PID" 2>/dev/null || true
  for _ in $(seq 1 100); do
    kill -0 "$DAV_PID" 2>/dev/null || break
    sleep 0.1
  done
  kill -KILL "$DAV_PID" 2>/dev/null || true
  wait "$DAV_PID" 2>/dev/null || true
  DAV_PID=
}

# Starts the stopped server again on the same ports and root.
dav_restart_after_stop() { dav_launch "$DAV_DIR"; }

if [ "${BASH_SOURCE[0]}" = "$0" ]; then
  case "${1:-}" in
    start)
      dav_start "$2" || exit 1
      echo "$2/env"
      ;;
    stop)
      # shellcheck disable=SC1091
      . "$2/env"
      dav_stop
      ;;
    *) echo "usage: $0 start|stop DIR" >&2; exit 2 ;;
  esac
fi
