#!/bin/sh -e
# nginx before a server, set up by gateway.conf. Usage: gateway.sh FOLDER PORT SERVER_PORT PROGRAM [ARGUMENT...]
# Becomes the program, with whose end nginx ends. FOLDER/pid is there while nginx serves.
sed "s/{PORT}/$2/; s/{SERVER}/$3/" "${0%/*}/gateway.conf" >"$1/nginx.conf"
PATH=$PATH:/usr/sbin setpriv --pdeathsig TERM nginx -e /dev/null -p "$1" -c nginx.conf &
shift 3
exec "$@"
