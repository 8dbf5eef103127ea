"""The tenant's log service, played on this machine: certificates, server, nginx."""
