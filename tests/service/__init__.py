"""The tenant's log service on this machine: certificates, server, nginx."""
