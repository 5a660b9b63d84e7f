# For the supervisor to run: crashes twice, then asks it to stop and waits to be stopped itself.
if [ "$ATTEMPT" -lt 3 ]; then kill -SEGV $$; fi
kill -TERM $PPID
exec sleep 60
