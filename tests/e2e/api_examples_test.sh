#!/bin/bash
# Every example of docs/api.md against a server and an agent, and an example for every resource there is.
. "$(dirname "$0")/kestrel_support.sh"
. "$(dirname "$0")/server_support.sh"
sources=$(cd "$(dirname "$0")/../.." && pwd)

start_server
start_agent alpha
sign_in root admin
run 0 "$kestrel" user add victor --role viewer --password-file "$work/password"
sign_in victor viewer

# The resources, from the sources: router.add("METHOD", "/k2/r/...", where "one" is a constant of jobs.
grep -hoE -A1 'router\.add\($|router\.add\([^;]*' "$sources"/server/*_resources.cpp | tr '\n' ' ' |
  sed 's/router\.add(/\n&/g' | sed -nE 's/.*router\.add\( *"([A-Z]+)", *("([^"]+)"|one).*/\1 \3/p' |
  sed 's,^\([A-Z]*\) $,\1 /k2/r/jobs/{id},' | sort -u >"$work/resources"
[ "$(wc -l <"$work/resources")" -gt 40 ] || fail "only $(wc -l <"$work/resources") resources were found in the sources"

status=0
python3 "$sources/tests/e2e/api_examples.py" "$sources/docs/api.md" "$server_url" "$ca" "$work/resources" \
  "TOKEN_ADMIN=$(token_of root)" "TOKEN_VIEWER=$(token_of victor)" "ACCESS_KEY=$(access_key alpha)" \
  "POOL_DIRECTORY=$pool" "PASSWORD=$password" >"$work/report" 2>&1 || status=$?
cat "$work/report"
[ "$status" -eq 0 ] || fail "docs/api.md does not tell what the server does"
for secret in "$password" "$(access_key alpha)"; do
  ! grep -rqF -- "$secret" "$KESTREL_ROOT/var/log" || fail "a secret is in the server's log"
done
echo "api examples: ok"
