"""Stand-in for the host debugger's base package."""
