"""The compiler-side interfaces that the reduction rules work against."""
