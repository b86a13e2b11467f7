# Commands of the host's software image come last on the path: they replace none of the host's own.
case ":$PATH:" in
*:/opt/tessel/bin:*) ;;
*) PATH=$PATH:/opt/tessel/bin ;;
esac
if [ "$(id -u)" -eq 0 ]; then
  case ":$PATH:" in
  *:/opt/tessel/sbin:*) ;;
  *) PATH=$PATH:/opt/tessel/sbin ;;
  esac
fi
