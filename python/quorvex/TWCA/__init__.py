"""Certificate signing for orders and account operations."""
