# rc file of the interactive guest shell (QB_E2E_SHELL=1): the stack comes up, then the prompt.
. "$QB_E2E_GUEST_DIR/stack.sh"
stack_up
PS1='e2e-vm# '
alias poweroff='sync; echo o >/proc/sysrq-trigger'
echo "hci0=$HCI0_ADDR hci1=$HCI1_ADDR; logs in $OUT; peers in $PEERS; 'poweroff' ends the VM"
